#include "records/input.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>

#include "memory_file_system.h"

namespace lockstep::records {
namespace {

using testing::MemoryFileSystem;

class InputTest : public ::testing::Test {
 protected:
  InputFile open(const std::string& content) {
    fs.set_file("data.txt", content);
    InputFile file(fs);
    EXPECT_TRUE(file.open(unit::kSettings, "data.txt", Access::kUnspecified).ok());
    return file;
  }

  // Every record to the end of the file, each `width` characters.
  std::vector<std::string> texts(InputFile& file, std::size_t width) {
    std::vector<std::string> read;
    std::string text;
    Status status;
    while ((status = file.read_text(width, text)).ok()) read.push_back(text);
    EXPECT_EQ(status.code(), -1);
    return read;
  }

  MemoryFileSystem fs;
};

TEST_F(InputTest, RecordsAreLinesWithoutTheirEnds) {
  const std::string long_line(100'000, 'q');
  struct Case {
    const char* name;
    std::string content;
    std::size_t width;
    std::vector<std::string> expected;
  };
  const Case cases[] = {
      {"cr lf", "time_step=\r\n5\r\n", 10, {"time_step=", "5         "}},
      {"last line without end", "a\n7", 3, {"a  ", "7  "}},
      {"last line with cr only", "prog\r", 6, {"prog  "}},
      {"empty records", "\n\nx\n", 2, {"  ", "  ", "x "}},
      {"cut at the width", "0123456789abc\nnext\n", 10, {"0123456789", "next      "}},
      {"lone cr inside a record stays", "a\rb\n", 4, {"a\rb "}},
      {"empty file", "", 4, {}},
      {"longer than any buffer", long_line + "x\nshort\n" + long_line, 100'001,
       {long_line + "x", "short" + std::string(99'996, ' '), long_line + " "}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    InputFile file = open(c.content);
    EXPECT_EQ(texts(file, c.width), c.expected);
  }
}

// A line still being written at the first read becomes a record; its rest,
// written later, is a record of its own.
TEST_F(InputTest, AFileThatGrowsBetweenReadsIsReadAsItStandsEachTime) {
  InputFile file = open("12");
  int reads = 0;
  fs.before_read = [&](const std::string& path) {
    if (++reads == 2) fs.set_file(path, "1234\n56\n");
  };
  EXPECT_EQ(texts(file, 2), (std::vector<std::string>{"12", "34", "56"}));
}

TEST_F(InputTest, ListDirectedIntegerForms) {
  constexpr std::int32_t kUnchanged = 777;
  struct Case {
    std::string content;
    int code;
    std::int32_t value;
  };
  const Case cases[] = {
      {"  42", 0, 42},           {"-5 9", 0, -5},          {"3*17", 0, 17},
      {" \t \r\n\t\n  8", 0, 8}, {"+12", 0, 12},           {"12,34", 0, 12},
      {"12/", 0, 12},            {"7\tx", 0, 7},           {"2147483647", 0, INT32_MAX},
      {"-2147483648", 0, INT32_MIN}, {"0 5 7", 0, 0},      {",", 0, kUnchanged},
      {"/", 0, kUnchanged},      {"  ,5", 0, kUnchanged},  {"3*", 0, kUnchanged},
      {"3*,9", 0, kUnchanged},   {"x1", 59, kUnchanged},   {"4.0", 59, kUnchanged},
      {"1e5", 59, kUnchanged},   {"-", 59, kUnchanged},    {"*5", 59, kUnchanged},
      {"0*5", 59, kUnchanged},   {"2*x", 59, kUnchanged},  {"2147483648", 64, kUnchanged},
      {"-2147483649", 64, kUnchanged}, {"99999999999999999999", 64, kUnchanged}, {"\n  \n", -1, kUnchanged},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE("content \"" + c.content + "\"");
    InputFile file = open(c.content);
    std::optional<std::int32_t> value = kUnchanged;
    EXPECT_EQ(file.read_integer(value).code(), c.code);
    EXPECT_EQ(value, c.value);
  }
}

// Each read starts at the next record; a failure names the unit, the full
// path and the record.
TEST_F(InputTest, ReadsFollowEachOtherAndFailuresSayWhere) {
  InputFile file = open("5 6\n7\nabcdef\n\nx1\n");
  std::optional<std::int32_t> value;
  ASSERT_TRUE(file.read_integer(value).ok());
  EXPECT_EQ(value, 5);
  ASSERT_TRUE(file.read_integer(value).ok());
  EXPECT_EQ(value, 7);
  std::string text;
  ASSERT_TRUE(file.read_text(3, text).ok());
  EXPECT_EQ(text, "abc");
  const Status status = file.read_integer(value);
  EXPECT_EQ(status.headline(), "recio: severe (59): list-directed I/O syntax error, unit 23, file /run/data.txt");
  EXPECT_EQ(status.trail(), std::vector<std::string>{"list-directed integer read, record 5"});
  const Status end = file.read_text(4, text);
  EXPECT_EQ(end.headline(), "recio: severe (24): end-of-file during read, unit 23, file /run/data.txt");
  EXPECT_EQ(end.trail(), std::vector<std::string>{"fixed-width text read, record 6"});

  fs.set_file("/abs/file", "");
  fs.add_directory("/abs");
  InputFile absolute(fs);
  ASSERT_TRUE(absolute.open(unit::kProjectFile, "/abs/file", Access::kRead).ok());
  EXPECT_EQ(absolute.read_text(1, text).headline(), "recio: severe (24): end-of-file during read, unit 10, file /abs/file");
}

TEST_F(InputTest, OpenFailuresMapTheSystemReasonAndOnlyAccessReadCreatesNothing) {
  struct Case {
    const char* name;
    int os_error;
    int opens_failing;
    Access access;
    int code;
  };
  const Case cases[] = {
      {"read-write refused, read-only fallback works", EACCES, 1, Access::kUnspecified, 0},
      {"read-only file system, fallback works", EROFS, 1, Access::kUnspecified, 0},
      {"refused both ways", EACCES, 2, Access::kUnspecified, 9},
      {"access read refused", EACCES, 1, Access::kRead, 9},
      {"no such device", ENXIO, 1, Access::kUnspecified, 42},
      {"not a directory", ENOTDIR, 1, Access::kUnspecified, 43},
      {"name too long", ENAMETOOLONG, 1, Access::kRead, 43},
      {"anything else", EMFILE, 1, Access::kUnspecified, 30},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    fs.set_file("f", "1\n");
    fs.fail("open", "f", c.opens_failing, c.os_error);
    InputFile file(fs);
    EXPECT_EQ(file.open(unit::kProjectFile, "f", c.access).code(), c.code);
    EXPECT_EQ(file.is_open(), c.code == 0);
  }

  fs.add_directory("../main");
  InputFile file(fs);
  EXPECT_EQ(file.open(unit::kProjectFile, "../main/go2.dat", Access::kRead).code(), 29);
  EXPECT_EQ(file.open(unit::kProjectFile, "../sub1/x.dat", Access::kUnspecified).code(), 29);
  ASSERT_TRUE(file.open(unit::kProjectFile, "../main/x.dat", Access::kUnspecified).ok());
  EXPECT_FALSE(fs.file("../main/go2.dat"));
  EXPECT_EQ(fs.file("../main/x.dat"), "");
  EXPECT_TRUE(file.close().ok());
}

}  // namespace
}  // namespace lockstep::records
