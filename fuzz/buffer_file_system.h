// A file system in which every name opens the same bytes, read back in chunks
// of a chosen size; writes are accepted and dropped.
#pragma once

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

#include "records/file_system.h"

namespace lockstep::fuzz {

class BufferFileSystem final : public records::FileSystem {
 public:
  // A chunk of 0 reads as much as is asked for.
  BufferFileSystem(std::string content, std::size_t chunk) : content_(std::move(content)), chunk_(chunk) {}

  int open(const std::string&, records::OpenMode) override {
    position_ = 0;
    return 3;
  }
  ssize_t read(int, char* buffer, std::size_t size) override {
    std::size_t n = std::min(size, content_.size() - position_);
    if (chunk_ > 0) n = std::min(n, chunk_);
    std::memcpy(buffer, content_.data() + position_, n);
    position_ += n;
    return static_cast<ssize_t>(n);
  }
  ssize_t write(int, const char*, std::size_t size) override { return static_cast<ssize_t>(size); }
  int close(int) override { return 0; }
  std::string current_directory() override { return "/fuzz"; }

 private:
  std::string content_;
  std::size_t chunk_;
  std::size_t position_ = 0;
};

}  // namespace lockstep::fuzz
