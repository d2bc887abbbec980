#include "fields/store.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "process.h"

namespace lockstep::fields {
namespace {

using testing::TempDir;

Header doubles(std::int64_t count, std::int32_t version) {
  return {Type::kFloat64, false, {count}, {0, Role::kOutput, {version, 1, 1}}};
}

ReadOutcome read_into(const std::string& path, Header& header, std::vector<double>& values, std::string& error) {
  return read_field(
      path, header,
      [&](const Header& found, std::string&) -> void* {
        values.resize(static_cast<std::size_t>(found.shape.at(0)));
        return values.data();
      },
      error);
}

TEST(FieldStoreTest, AReaderSeesOneWholeVersionWhileAWriterReplacesTheField) {
  TempDir dir;
  const std::string path = field_path(dir.path().string(), Role::kOutput, "big");
  constexpr std::int64_t kCount = 1 << 18;
  std::string error;
  std::vector<double> values(kCount, 1.0);
  ASSERT_TRUE(write_field(path, doubles(kCount, 1), values.data(), error)) << error;

  std::atomic<bool> stop{false};
  std::thread writer([&] {
    std::vector<double> next(kCount);
    for (std::int32_t version = 2; !stop; ++version) {
      std::fill(next.begin(), next.end(), static_cast<double>(version));
      std::string write_error;
      ASSERT_TRUE(write_field(path, doubles(kCount, version), next.data(), write_error)) << write_error;
    }
  });
  int reads = 0;
  std::int32_t newest = 0;
  for (; reads < 200; ++reads) {
    Header header;
    std::vector<double> seen;
    ASSERT_EQ(read_into(path, header, seen, error), ReadOutcome::kRead) << error;
    const double version = header.stamp.request.cycle;
    EXPECT_GE(header.stamp.request.cycle, newest);
    newest = header.stamp.request.cycle;
    ASSERT_EQ(std::count(seen.begin(), seen.end(), version), kCount) << "a mix of versions in read " << reads;
  }
  stop = true;
  writer.join();
  EXPECT_GT(newest, 1);
}

TEST(FieldStoreTest, MissingCutAndOddFilesAreToldApart) {
  TempDir dir;
  const std::string path = field_path(dir.path().string(), Role::kInput, "x");
  Header header;
  std::vector<double> values;
  std::string error;
  EXPECT_EQ(read_into(path, header, values, error), ReadOutcome::kMissing);

  const double three[] = {1, 2, 3};
  const double four[] = {4, 5, 6, 7};
  // Written anew, then over itself: no temporary file is left beside the
  // field either way, and the last values are read.
  ASSERT_TRUE(write_field(path, doubles(3, 1), three, error)) << error;
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path() / "fields/in"), {}), 1);
  ASSERT_TRUE(write_field(path, doubles(4, 2), four, error)) << error;
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path() / "fields/in"), {}), 1);
  ASSERT_EQ(read_into(path, header, values, error), ReadOutcome::kRead);
  EXPECT_EQ(values, (std::vector<double>{4, 5, 6, 7}));
  EXPECT_EQ(header.stamp.request.cycle, 2);
  ASSERT_TRUE(write_field(path, doubles(3, 3), three, error)) << error;
  EXPECT_EQ(testing::read_file(dir.path() / "fields/in/x.npy").size(), 192u + 24u);

  testing::plant(path, testing::read_file(path).substr(0, 192 + 16));
  EXPECT_EQ(read_into(path, header, values, error), ReadOutcome::kError);
  EXPECT_EQ(error, path + ": 208 bytes do not match its header (3 values of float64)");
  testing::plant(path, "<fifo>");
  EXPECT_EQ(read_into(path, header, values, error), ReadOutcome::kError);
  EXPECT_EQ(error, "cannot read " + path + ": not a regular file");
}

// The temporary file is never one someone else chose: not a link planted
// under the name an earlier version would have used, and a write whose
// temporary file cannot be made fails, leaving the field as it was.
TEST(FieldStoreTest, TheTemporaryFileIsNewAndItsFailureIsReported) {
  TempDir dir;
  const std::string path = field_path(dir.path().string(), Role::kInput, "c");
  const double one[] = {1};
  std::string error;
  ASSERT_TRUE(write_field(path, doubles(1, 1), one, error)) << error;
  const std::filesystem::path outside = dir.path() / "outside.txt";
  testing::write_file(outside, "not the field's");
  std::filesystem::create_symlink(outside, dir.path() / ("fields/in/.c.npy." + std::to_string(::getpid()) + ".tmp"));
  const double two[] = {2};
  ASSERT_TRUE(write_field(path, doubles(1, 2), two, error)) << error;
  EXPECT_EQ(testing::read_file(outside), "not the field's");
  Header header;
  std::vector<double> values;
  ASSERT_EQ(read_into(path, header, values, error), ReadOutcome::kRead);
  EXPECT_EQ(values, std::vector<double>{2});

  // A file where the directory belongs: no temporary file can be opened.
  const std::string blocked = field_path((dir.path() / "blocked").string(), Role::kOutput, "u");
  testing::write_file(dir.path() / "blocked/fields/out", "a file, not a directory");
  EXPECT_FALSE(write_field(blocked, doubles(1, 1), one, error));
  EXPECT_EQ(error, "cannot write " + blocked + ": Not a directory");
  // And one that cannot be written to, where permissions hold (not as root).
  testing::plant(dir.path() / "fields/in", "<read-only>");
  if (::geteuid() != 0) {
    EXPECT_FALSE(write_field(path, doubles(1, 3), one, error));
    EXPECT_EQ(error, "cannot write " + path + ": Permission denied");
  }
}

}  // namespace
}  // namespace lockstep::fields
