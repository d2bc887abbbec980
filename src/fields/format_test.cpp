#include "fields/format.h"

#include <gtest/gtest.h>

#include <numeric>

namespace lockstep::fields {
namespace {

TEST(FieldFormatTest, HeaderIsNumpysWithTheStampInItsPadding) {
  const Header header{Type::kFloat64, false, {3, 2}, {1, Role::kInput, {5, 2, 3}}};
  const std::string bytes = encode_header(header);
  // Values start at a multiple of 64 bytes, as NumPy aligns them.
  ASSERT_EQ(bytes.size(), 192u);
  EXPECT_EQ(bytes.substr(0, 10), std::string("\x93NUMPY\x01\x00\xb6\x00", 10));
  EXPECT_EQ(bytes.substr(10, 126),
            "{'descr': '<f8', 'fortran_order': False, 'shape': (3, 2), } # lockstep field: project=1 role=input "
            "cycle=5 time_step=2 stage=3");
  EXPECT_EQ(bytes.back(), '\n');

  Header decoded;
  std::size_t offset = 0;
  std::string error;
  ASSERT_TRUE(decode_header(bytes, decoded, offset, error)) << error;
  EXPECT_EQ(offset, 192u);
  EXPECT_EQ(decoded.shape, header.shape);
  EXPECT_EQ(decoded.stamp, header.stamp);

  // A stamp that ends at the newline, with no padding after it, as another
  // writer may lay the header out, reads back whole.
  const std::string stamp = "# lockstep field: project=1 role=output cycle=12 time_step=3 stage=4";
  std::string text = "{'descr': '<f8', 'fortran_order': False, 'shape': (3,), }";
  text.append(192 - 10 - text.size() - stamp.size() - 1, ' ').append(stamp).append("\n");
  ASSERT_TRUE(decode_header(std::string("\x93NUMPY\x01\x00\xb6\x00", 10) + text, decoded, offset, error)) << error;
  EXPECT_EQ(decoded.stamp, (Stamp{1, Role::kOutput, {12, 3, 4}}));

  // One dimension is written as Python writes a 1-tuple; none as ().
  EXPECT_NE(encode_header({Type::kInt32, false, {7}, {}}).find("'descr': '<i4', 'fortran_order': False, 'shape': (7,), }"),
            std::string::npos);
  EXPECT_NE(encode_header({Type::kInt64, true, {}, {}}).find("'descr': '<i8', 'fortran_order': True, 'shape': (), }"),
            std::string::npos);
}

TEST(FieldFormatTest, WhatIsNotAFieldFileSaysWhy) {
  const std::string good = encode_header({Type::kFloat64, false, {4}, {2, Role::kOutput, {1, 1, 1}}});
  // The header with one text replaced, its padding adjusted so that its
  // length stays right.
  const auto replaced = [&](const std::string& from, const std::string& to) {
    std::string bytes = good;
    bytes.replace(bytes.find(from), from.size(), to);
    const auto end = bytes.find_last_not_of(" \n") + 1;
    bytes.resize(end);
    bytes.append(good.size() - 1 - end, ' ');
    return bytes + '\n';
  };
  const std::pair<std::string, std::string> cases[] = {
      {"", "not a field file (no NumPy .npy header)"},
      {"PK\x03\x04 a zip file", "not a field file (no NumPy .npy header)"},
      {good.substr(0, 40), "the header is cut short"},
      {replaced(std::string("\x01\x00", 2), std::string("\x03\x00", 2)),
       "a NumPy file of format 3.0, not the 1.0 or 2.0 that field files use"},
      {replaced("stage=1", "stage=1 parts=1,2"), "its parts (1,2) do not add up to its rows"},
      {replaced("stage=1", "stage=1 parts=2*3"), "its parts (2*3) do not add up to its rows"},
      {replaced("stage=1", "stage=1 parts=-1,5"), "its parts (-1,5) do not add up to its rows"},
      {replaced("stage=1", "stage=1 parts=0*2000000"), "its parts (0*2000000) do not add up to its rows"},
      {replaced("stage=1", "stage=1 parts=4611686018427387904*4"),
       "its parts (4611686018427387904*4) do not add up to its rows"},
      {replaced("<f8", ">f8"), "values of type '>f8'; fields hold float64, int32 or int64, little-endian"},
      {replaced("(4,)", "(4, -1)"), "the header has no valid shape (at most 8 dimensions)"},
      {replaced("(4,)", "(1, 1, 1, 1, 1, 1, 1, 1, 1)"), "the header has no valid shape (at most 8 dimensions)"},
      {replaced("# lockstep field:", "# something else:"), "no stamp: it was not written by lockstep"},
      {replaced("role=output", "role=other"), "its stamp cannot be read"},
      {replaced("cycle=1", "cycle=x"), "its stamp cannot be read"},
  };
  for (const auto& [bytes, message] : cases) {
    Header header;
    std::size_t offset = 0;
    std::string error;
    EXPECT_FALSE(decode_header(bytes, header, offset, error));
    EXPECT_EQ(error, message);
  }
}

TEST(FieldFormatTest, PartsAreRunsOfRowCountsAndTenThousandRanksFitAHeader) {
  Header header{Type::kFloat64, false, {10}, {1, Role::kOutput, {2, 1, 3}}, {3, 3, 3, 0, 1}};
  std::string bytes = encode_header(header);
  EXPECT_NE(bytes.find(" stage=3 parts=3*3,0,1 "), std::string::npos);
  Header decoded;
  std::size_t offset = 0;
  std::string error;
  ASSERT_TRUE(decode_header(bytes, decoded, offset, error)) << error;
  EXPECT_EQ(decoded.parts, header.parts);
  EXPECT_EQ(parts_text({0}), "0");

  // 10,000 ranks of distinct large counts overflow format 1.0's 65,535
  // bytes: the header becomes format 2.0, still aligned to 64 bytes.
  header.parts.clear();
  header.shape = {0};
  for (std::int64_t rank = 0; rank < 10000; ++rank) header.parts.push_back(1000000 + rank);
  for (const std::int64_t part : header.parts) header.shape[0] += part;
  bytes = encode_header(header);
  ASSERT_GT(bytes.size(), 65535u + 10);
  EXPECT_EQ(bytes.substr(6, 2), std::string("\x02\x00", 2));
  EXPECT_EQ(bytes.size() % 64, 0u);
  EXPECT_EQ(header_size(bytes), bytes.size());
  ASSERT_TRUE(decode_header(bytes, decoded, offset, error)) << error;
  EXPECT_EQ(offset, bytes.size());
  EXPECT_EQ(decoded.parts, header.parts);
  // Cut short, it is refused rather than read past its end.
  EXPECT_FALSE(decode_header(bytes.substr(0, 4096), decoded, offset, error));
  EXPECT_EQ(error, "the header is cut short");
}

TEST(FieldFormatTest, ReorderWalksEveryAxis) {
  // 2 x 3 row-major 0..5 is column-major 0 3 1 4 2 5; back again gives 0..5.
  std::vector<int> rows(6), columns(6), back(6);
  std::iota(rows.begin(), rows.end(), 0);
  reorder({2, 3}, sizeof(int), true, rows.data(), columns.data());
  EXPECT_EQ(columns, (std::vector<int>{0, 3, 1, 4, 2, 5}));
  reorder({2, 3}, sizeof(int), false, columns.data(), back.data());
  EXPECT_EQ(back, rows);
  // 2 x 2 x 2: element [i][j][k] at 4i+2j+k in rows, i+2j+4k in columns.
  std::vector<int> cube(8), column_cube(8);
  std::iota(cube.begin(), cube.end(), 0);
  reorder({2, 2, 2}, sizeof(int), true, cube.data(), column_cube.data());
  EXPECT_EQ(column_cube, (std::vector<int>{0, 4, 2, 6, 1, 5, 3, 7}));
}

TEST(FieldFormatTest, NamesAndStampsInWords) {
  EXPECT_EQ(check_name("left.in_2-b"), "");
  EXPECT_EQ(check_name(""), "a field name cannot be empty");
  EXPECT_EQ(check_name("../x"), "the field name \"../x\" is not allowed: use letters, digits, '_', '-' and '.', not starting with '.'");
  EXPECT_EQ(check_name(".hidden"), check_name(".hidden"));
  EXPECT_NE(check_name(".hidden"), "");
  EXPECT_NE(check_name(std::string(65, 'a')), "");
  EXPECT_EQ(describe(Stamp{0, Role::kOutput, kStartRequest}), "output of main, published before the first request");
  EXPECT_EQ(describe(Stamp{12, Role::kInput, {3, -1, 5}}), "input of sub12 for the cycle-end request of cycle 3");
}

}  // namespace
}  // namespace lockstep::fields
