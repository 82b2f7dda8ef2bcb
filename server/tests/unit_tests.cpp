// The streaming multipart parser under what only a unit test can arrange: a body split at every
// byte or cut at every length. The rest of kelvara-local is tested over HTTP (tests/test_*.py).
#include "multipart.h"

#include <algorithm>
#include <cstdio>
#include <numeric>
#include <string>
#include <vector>

using namespace kelvara;

namespace {

int failures = 0;

void check(bool ok, const std::string &what)
{
    if (!ok) {
        ++failures;
        std::fprintf(stderr, "FAILED: %s\n", what.c_str());
    }
}

// Logs "filename:data;" per part (a header line is parsed whole: its filename stands for it all).
struct Log : MultipartHandler
{
    std::string text;
    bool partBegin(const PartHeaders &h) override { return add(h.filename.value_or("?") + ':'); }
    bool partData(const char *data, std::size_t size) override { return add({data, size}); }
    bool partEnd() override { return add(";"); }
    bool add(std::string_view s)
    {
        text += s;
        return true;
    }
};

const std::string boundary = "0xKhTmLbOuNdArY";
std::size_t mostHeld = 0; // the most bytes the last parse() held back at a time

std::string hopliftBody(const std::string &filename, const std::string &content)
{
    return "--" + boundary + "\r\nContent-Disposition: form-data; name=\"file\"; filename=\"" +
           filename + "\"\r\nContent-Type: application/octet-stream\r\n\r\n" + content + "\r\n--" +
           boundary + "--\r\n";
}

// Feeds body in pieces ending at the cuts; returns the log, and "done" if the body was complete.
std::string parse(const std::string &body, std::vector<std::size_t> cuts = {})
{
    Log log;
    MultipartParser parser(boundary, log);
    std::size_t pos = 0;
    bool ok = true;
    mostHeld = 0;
    cuts.push_back(body.size());
    for (const std::size_t end : cuts) {
        ok = ok && parser.feed(body.data() + pos, end - pos);
        mostHeld = std::max(mostHeld, parser.buffered());
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
    const std::string expected = "/home/u/a\"b.txt:" + content + ";done";
    // Once the headers are read, no more than a partial delimiter may be held back.
    const std::size_t contentStart = body.find("\r\n\r\n") + 4;
    for (std::size_t cut = 0; cut <= body.size(); ++cut) {
        check(parse(body, {cut}) == expected, "split at " + std::to_string(cut));
        check(cut < contentStart || mostHeld < boundary.size() + 4, "held " + std::to_string(cut));
    }
    std::vector<std::size_t> everyByte(body.size() - 1);
    std::iota(everyByte.begin(), everyByte.end(), 1);
    check(parse(body, everyByte) == expected, "fed byte by byte");
}

void testParserNeverAcceptsATruncatedBody()
{
    // Cut anywhere before the closing "--": never complete. The final CRLF is optional.
    const std::string body = hopliftBody("x", "some content");
    for (std::size_t length = 0; length < body.size() - 4; ++length) {
        check(!parse(body.substr(0, length)).ends_with("done"), "cut to " + std::to_string(length));
    }
    check(parse(body.substr(0, body.size() - 2)) == "x:some content;done", "no final CRLF");
}

} // namespace

int main()
{
    testParserSurvivesEverySplit();
    testParserNeverAcceptsATruncatedBody();
    std::printf("%s\n", failures ? "FAILED" : "passed");
    return failures == 0 ? 0 : 1;
}
