// The streaming multipart parser under what only a unit test can arrange: a
// body split at every byte or cut at every length. Everything else of
// kelvara-local is tested through its HTTP interface (tests/test_*.py).
#include "multipart.h"

#include <algorithm>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

using namespace kelvara;

namespace {

int failures = 0;

void check(bool ok, int line, const std::string &what)
{
    if (!ok) {
        ++failures;
        std::fprintf(stderr, "unit_tests.cpp:%d: FAILED: %s\n", line, what.c_str());
    }
}

// Writes what the parser reports as "name=filename:data;" per part.
struct Log : MultipartHandler
{
    std::string text;
    bool partBegin(const PartHeaders &h) override
    {
        text += h.name + "=" + h.filename.value_or("(none)") + ":";
        return true;
    }
    bool partData(const char *data, std::size_t size) override
    {
        text.append(data, size);
        return true;
    }
    bool partEnd() override
    {
        text += ";";
        return true;
    }
};

const std::string boundary = "0xKhTmLbOuNdArY";

std::string hopliftBody(const std::string &filename, const std::string &content)
{
    return "--" + boundary + "\r\nContent-Disposition: form-data; name=\"file\"; filename=\"" +
           filename + "\"\r\nContent-Type: application/octet-stream\r\n\r\n" + content + "\r\n--" +
           boundary + "--\r\n";
}

// Feeds body in pieces that end at the cuts; returns the log, with "done"
// added when the body was complete, and the most bytes held back meanwhile.
std::string parse(const std::string &body, const std::vector<std::size_t> &cuts = {},
                  std::size_t *mostHeld = nullptr)
{
    Log log;
    MultipartParser parser(boundary, log);
    std::size_t pos = 0;
    bool ok = true;
    for (std::size_t i = 0; i <= cuts.size() && ok; ++i) {
        const std::size_t end = i < cuts.size() ? cuts[i] : body.size();
        ok = parser.feed(body.data() + pos, end - pos);
        if (mostHeld) {
            *mostHeld = std::max(*mostHeld, parser.buffered());
        }
        pos = end;
    }
    return log.text + (ok && parser.finish() ? "done" : "");
}

void testParserSurvivesEverySplit()
{
    // Content that looks like parts of a delimiter, ending in a partial one.
    const std::string content = "start\r\n--0xKhTmLbOuNdAr\r\n-\r\n--\r\n\r\n-0xKhTmLbOuNdArY x--" +
                                boundary + "--\n--" + boundary + std::string("\0\r\0\n", 4) +
                                "\r\n--0xKhTmLbOuNdAr";
    const std::string body = hopliftBody("/home/u/a\"b.txt", content);
    const std::string expected = "file=/home/u/a\"b.txt:" + content + ";done";
    std::vector<std::size_t> everyByte;
    for (std::size_t cut = 0; cut <= body.size(); ++cut) {
        check(parse(body, {cut}) == expected, __LINE__, "split at " + std::to_string(cut));
        if (cut > 0 && cut < body.size()) {
            everyByte.push_back(cut);
        }
    }
    check(parse(body, everyByte) == expected, __LINE__, "fed byte by byte");

    // 4 MiB of random bytes in random pieces: intact, and never more than a
    // delimiter's worth held back.
    std::mt19937 rng(1234);
    std::string big(4 << 20, '\0');
    for (char &c : big) {
        c = static_cast<char>(rng());
    }
    const std::string bigBody = hopliftBody("big.bin", big);
    std::vector<std::size_t> cuts;
    for (std::size_t pos = 1 + rng() % 70000; pos < bigBody.size(); pos += 1 + rng() % 70000) {
        cuts.push_back(pos);
    }
    std::size_t mostHeld = 0;
    check(parse(bigBody, cuts, &mostHeld) == "file=big.bin:" + big + ";done", __LINE__, "4 MiB");
    check(mostHeld < boundary.size() + 4, __LINE__, "held back " + std::to_string(mostHeld));
}

void testParserNeverAcceptsATruncatedBody()
{
    // Cut anywhere before the closing "--": never complete. The final CRLF is optional.
    const std::string body = hopliftBody("x", "some content");
    for (std::size_t length = 0; length < body.size() - 4; ++length) {
        check(!parse(body.substr(0, length)).ends_with("done"), __LINE__,
              "accepted when cut to " + std::to_string(length));
    }
    check(parse(body.substr(0, body.size() - 2)) == "file=x:some content;done", __LINE__, "CRLF");
}

} // namespace

int main()
{
    testParserSurvivesEverySplit();
    testParserNeverAcceptsATruncatedBody();
    std::printf("%s\n", failures ? "FAILED" : "passed");
    return failures == 0 ? 0 : 1;
}
