#include "exchange/table.h"

#include <gtest/gtest.h>

namespace lockstep::exchange {
namespace {

TEST(ExchangeTableTest, LinesCommentsSlicesAndEveryErrorWithItsLine) {
  const Table table = parse_table(
      "# from output to input\n"
      "sub1  u[0:1]  main right   # the chain's boundary\n"
      "\n"
      "main  u       sub12 left\n"
      "main  u  sub1\n"
      "side  u  sub1 left\n"
      "main  u[2:1]  sub1 left\n"
      "main  u  sub0 left\n"
      "main  ../u  sub1 left\n"
      "sub100 u sub101 left\n"
      "main  u[3:3]  sub1 left\n"
      "sub2  first   sub12 left\n");
  // Two lines that write one input: neither is kept.
  ASSERT_EQ(table.copies.size(), 1u);
  const Copy& slice = table.copies[0];
  EXPECT_EQ(slice.line, 2);
  EXPECT_EQ(slice.from, 1);
  EXPECT_EQ(slice.output, "u");
  EXPECT_EQ(slice.first, 0u);
  EXPECT_EQ(slice.last, 1u);
  EXPECT_EQ(slice.to, 0);
  EXPECT_EQ(slice.input, "right");
  const std::vector<std::string> errors = {
      "exchange.dat:5: a line holds four words, FROM OUTPUT TO INPUT, not 3",
      "exchange.dat:6: \"side\" is no project: write main, sub1, sub2, ...",
      "exchange.dat:7: \"u[2:1]\" is no slice: write NAME[FIRST:LAST] with FIRST < LAST, counted from 0",
      "exchange.dat:8: \"sub0\" is no project: write main, sub1, sub2, ...",
      "exchange.dat:9: the field name \"../u\" is not allowed: use letters, digits, '_', '-' and '.', not starting "
      "with '.'",
      "exchange.dat:10: \"sub101\" is no project: write main, sub1, sub2, ...",
      "exchange.dat:11: \"u[3:3]\" is no slice: write NAME[FIRST:LAST] with FIRST < LAST, counted from 0",
      "exchange.dat:12: input \"left\" of sub12 is already written by line 4: an input comes from one line only; neither line is carried out",
  };
  EXPECT_EQ(table.errors, errors);

  // A table that is not there says so, and where it is looked for.
  Table missing;
  std::string error;
  EXPECT_FALSE(read_table("no-such-exchange.dat", missing, error));
  EXPECT_EQ(error, "cannot read no-such-exchange.dat: no such file; lockstep-exchange takes its table from the "
                   "driver's working directory");
}

}  // namespace
}  // namespace lockstep::exchange
