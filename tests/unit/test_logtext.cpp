#include "logtext.h"
#include "test_env.h"

// What reaches a log record: one line, printable text unchanged, every other byte spelled out.
TEST(LogText, EscapesWhatCouldBreakARecordAndKeepsPrintableText)
{
    const struct {
        std::string in;
        const char *out;
    } cases[] = {
        {"Europe/Paris \\d ~!\"#", "Europe/Paris \\d ~!\"#"},
        {"CET\nnotice forged", "CET\\nnotice forged"},
        {"a\r\n\tb", "a\\r\\n\\tb"},
        {std::string("\x01\x1b[2J\x7f", 6), "\\x01\\x1b[2J\\x7f"},
        {"caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80", "caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80"},
        {"\xc2\x85\xc2\x9f\xc2\xa0", "\\xc2\\x85\\xc2\\x9f\xc2\xa0"}, // C1 controls; U+00A0 is printable
        {"\xc3(\x80\xff", "\\xc3(\\x80\\xff"},                        // lone lead and continuation bytes
        {"\xc0\xaf\xe0\x80\xaf\xed\xa0\x80\xf4\x90\x80\x80",          // overlong, surrogate, past U+10FFFF
         "\\xc0\\xaf\\xe0\\x80\\xaf\\xed\\xa0\\x80\\xf4\\x90\\x80\\x80"},
        {"\xe2\x82", "\\xe2\\x82"}, // a character cut short by the end of the text
        {std::string("ab\0\ncd", 6), "ab"},
    };
    for (const auto &c : cases) {
        EXPECT_STREQ(LogText<64>(c.in.data(), c.in.size()).c_str(), c.out) << c.in;
    }
    EXPECT_STREQ(LogText<8>(nullptr).c_str(), "");
}

TEST(LogText, BoundsTheSourceAndNeverSplitsAnEscape)
{
    EXPECT_STREQ(LogText<4>("abcd").c_str(), "abcd");
    EXPECT_STREQ(LogText<4>("abcde").c_str(), "abcd...");
    EXPECT_STREQ(LogText<4>("abcdefgh", 5).c_str(), "abcd...");
    EXPECT_STREQ(LogText<4>("ab\n\n", 4).c_str(), "ab\\n\\n") << "a given length is not a cut";
    // A fixed field without a terminator is read within its size.
    const char field[3] = {'U', 'S', '\n'};
    EXPECT_STREQ(logText(field).c_str(), "US\\n");
    // Every byte at its widest still fits the buffer the class reserves.
    std::string wide(16, '\x80');
    EXPECT_EQ(strlen(LogText<16>(wide.c_str()).c_str()), 64u);

    char out[8];
    EXPECT_EQ(tavel_escapeText(out, sizeof(out), "abcd\x01xy", 7), 4u);
    EXPECT_STREQ(out, "abcd") << "an escape that does not fit whole is left out";
    EXPECT_EQ(tavel_escapeText(out, sizeof(out) - 1, "abcd\xe2\x82\xac", 7), 4u);
    EXPECT_STREQ(out, "abcd") << "and so is a character";
}
