#include <gtest/gtest.h>

#include "util.h"

TEST(ShellQuote, QuotesEmbeddedQuotes)
{
    char out[64];
    ASSERT_EQ(tavel_shellQuote("a'b", out, sizeof(out)), 0);
    EXPECT_STREQ(out, "'a'\\''b'");
    EXPECT_EQ(tavel_shellQuote("abcdef", out, 5), -1);
    EXPECT_STREQ(out, "");
}
