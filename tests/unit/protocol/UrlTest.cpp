#include "core/Vorlan.h"

#include <gtest/gtest.h>

#include <string>

namespace {

std::string trimmed(std::string text)
{
    Vorlan::lTrim(text);
    return text;
}

struct tSubstitution
{
    bool done;
    std::string url;

    bool operator==(const tSubstitution&) const = default;
};

void PrintTo(const tSubstitution& result, std::ostream* os)
{
    *os << (result.done ? "changed to " : "left as ") << result.url;
}

tSubstitution substituted(std::string url, const std::string& pattern = "localhost",
                          const std::string& replacement = "10.0.0.5")
{
    const bool done = Vorlan::doWebUrlSubstitution(url, pattern, replacement);
    return {done, url};
}

tSubstitution changed(std::string url)
{
    return {true, std::move(url)};
}

tSubstitution left(std::string url)
{
    return {false, std::move(url)};
}

} // namespace

TEST(LTrim, RemovesEveryKindOfWhiteSpaceInFront)
{
    EXPECT_EQ("http://qv/", trimmed("  http://qv/"));
    EXPECT_EQ("x", trimmed(" \t\n\v\f\rx"));
}

TEST(LTrim, LeavesWhiteSpaceElsewhere)
{
    EXPECT_EQ("a b  ", trimmed("\ta b  "));
    EXPECT_EQ("a \t", trimmed("a \t"));
}

TEST(LTrim, MakesWhiteSpaceAloneEmpty)
{
    EXPECT_EQ("", trimmed(" \t\n\v\f\r "));
    EXPECT_EQ("", trimmed(""));
}

TEST(LTrim, KnowsNoWhiteSpaceBeyondAscii)
{
    EXPECT_EQ("\xA0x", trimmed("\xA0x"));
    EXPECT_EQ("\x85x", trimmed(" \x85x"));
}

TEST(UrlSubstitution, ReplacesTheHostAtTheStart)
{
    EXPECT_EQ(changed("10.0.0.5/x"), substituted("localhost/x"));
    EXPECT_EQ(changed("10.0.0.5"), substituted("localhost"));
    EXPECT_EQ(changed("10.0.0.5:8080"), substituted("localhost:8080"));
}

TEST(UrlSubstitution, ReplacesTheHostBehindHttp)
{
    EXPECT_EQ(changed("http://10.0.0.5:8080/index.html"), substituted("http://localhost:8080/index.html"));
    EXPECT_EQ(changed("http://10.0.0.5"), substituted("http://localhost"));
    EXPECT_EQ(changed("http://10.0.0.5/a?b=c#d "), substituted("http://localhost/a?b=c#d "));
}

TEST(UrlSubstitution, ReplacesTheHostBehindHttps)
{
    EXPECT_EQ(changed("https://10.0.0.5/"), substituted("https://127.0.0.1/", "127.0.0.1"));
    EXPECT_EQ(changed("https://10.0.0.5:444/x"), substituted("https://localhost:444/x"));
}

TEST(UrlSubstitution, TakesNoOtherPlace)
{
    for (const char* url : {"ftp://localhost/", "http://mylocalhost/", "http:///localhost", "://localhost/",
                            "xlocalhost", "https:/localhost/", "http://qv/localhost", "https://a.localhost/"})
        EXPECT_EQ(left(url), substituted(url));
}

TEST(UrlSubstitution, TakesNoOtherPrefixOfTheSameLength)
{
    for (const char* url : {"HTTP://localhost/", "tftp://localhost/", "1234567localhost", "HTTPS://localhost/",
                            "rtsps://localhost/", "http://xlocalhost/", "12345678localhost"})
        EXPECT_EQ(left(url), substituted(url));
}

TEST(UrlSubstitution, LooksAtTheFirstOccurrenceOnly)
{
    EXPECT_EQ(changed("10.0.0.5/localhost"), substituted("localhost/localhost"));
    EXPECT_EQ(changed("10.0.0.5localhost"), substituted("localhostlocalhost"));
    EXPECT_EQ(left("xlocalhost http://localhost/"), substituted("xlocalhost http://localhost/"));
}

TEST(UrlSubstitution, LeavesAUrlWithoutThePattern)
{
    for (const char* url : {"", "http://", "http://qv.example/", "http://localhos", "http://LOCALHOST/"})
        EXPECT_EQ(left(url), substituted(url));
    EXPECT_EQ(left("http://localhost/"), substituted("http://localhost/", "127.0.0.1"));
    EXPECT_EQ(left("http://127.0.0.1/"), substituted("http://127.0.0.1/", "localhost"));
}

TEST(UrlSubstitution, TakesAReplacementOfAnyLength)
{
    EXPECT_EQ(changed("http:///x"), substituted("http://localhost/x", "localhost", ""));
    EXPECT_EQ(changed("http://a/x"), substituted("http://localhost/x", "localhost", "a"));
    EXPECT_EQ(changed("http://localhost.localdomain/x"),
              substituted("http://localhost/x", "localhost", "localhost.localdomain"));
}
