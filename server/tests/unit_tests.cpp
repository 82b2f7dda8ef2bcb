// Unit tests for the parts of kelvara-local whose mistakes would not show in
// a quick manual try: the streaming multipart parser under every way a body
// can be split or broken, the file name rules, quota bookkeeping, and the
// accounts file checks.
#include "accounts.h"
#include "multipart.h"
#include "storage.h"
#include "text.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <random>
#include <string>
#include <vector>

namespace fs = std::filesystem;
using namespace kelvara;

namespace {

int failures = 0;
int checks = 0;

void report(bool ok, const char *file, int line, const std::string &what)
{
    ++checks;
    if (!ok) {
        ++failures;
        std::fprintf(stderr, "%s:%d: FAILED: %s\n", file, line, what.c_str());
    }
}

std::string show(const std::string &s)
{
    std::string out = "\"";
    for (unsigned char c : s) {
        if (c >= 0x20 && c < 0x7F && c != '"' && c != '\\') {
            out += static_cast<char>(c);
        } else {
            char buf[8];
            std::snprintf(buf, sizeof buf, "\\x%02X", c);
            out += buf;
        }
    }
    return out + "\"";
}
std::string show(long long v)
{
    return std::to_string(v);
}

#define CHECK(cond) report((cond), __FILE__, __LINE__, #cond)
#define CHECK_EQ(actual, expected)                                                                 \
    do {                                                                                           \
        const auto a_ = (actual);                                                                  \
        const auto e_ = (expected);                                                                \
        report(a_ == e_, __FILE__, __LINE__,                                                       \
               std::string(#actual) + " is " + show(a_) + ", expected " + show(e_));               \
    } while (0)

struct Part
{
    PartHeaders headers;
    std::string data;
    bool ended = false;
};

struct Recorder : MultipartHandler
{
    std::vector<Part> parts;
    bool abortOnData = false;

    bool partBegin(const PartHeaders &h) override
    {
        parts.push_back({h, {}, false});
        return true;
    }
    bool partData(const char *d, std::size_t n) override
    {
        if (abortOnData) {
            return false;
        }
        parts.back().data.append(d, n);
        return true;
    }
    bool partEnd() override
    {
        parts.back().ended = true;
        return true;
    }
};

const std::string boundary = "0xKhTmLbOuNdArY";

// The body Hoplift sends for one file.
std::string hopliftBody(const std::string &filename, const std::string &content)
{
    return "--" + boundary + "\r\nContent-Disposition: form-data; name=\"file\"; filename=\"" +
           filename + "\"\r\nContent-Type: application/octet-stream\r\n\r\n" + content + "\r\n--" +
           boundary + "--\r\n";
}

// Content that looks like parts of a delimiter without being one.
std::string trickyContent()
{
    std::string s = "start\r\n--0xKhTmLbOuNdAr\r\n-\r\n--\r\n\r\n-0xKhTmLbOuNdArY "
                    "x--0xKhTmLbOuNdArY--\n--0xKhTmLbOuNdArY";
    s += std::string("\0\r\0\n", 4);
    s += "\r\n--0xKhTmLbOuNdAr"; // partial delimiter right at the end of the content
    return s;
}

struct ParseResult
{
    Recorder rec;
    bool fedOk = true;
    bool finished = false;
    MultipartParser::Status status = MultipartParser::Status::Ok;
    std::size_t maxBuffered = 0;
};

ParseResult parseInPieces(const std::string &body, const std::vector<std::size_t> &cuts)
{
    ParseResult r;
    MultipartParser parser(boundary, r.rec);
    std::size_t pos = 0;
    for (std::size_t i = 0; i <= cuts.size() && r.fedOk; ++i) {
        const std::size_t end = i < cuts.size() ? cuts[i] : body.size();
        r.fedOk = parser.feed(body.data() + pos, end - pos);
        r.maxBuffered = std::max(r.maxBuffered, parser.buffered());
        pos = end;
    }
    r.finished = r.fedOk && parser.finish();
    r.status = parser.status();
    return r;
}

void testMultipartSplits()
{
    const std::string content = trickyContent();
    const std::string body = hopliftBody("/home/u/a\"b.txt", content);
    // Every single split point, then byte by byte.
    for (std::size_t cut = 0; cut <= body.size(); ++cut) {
        const ParseResult r = parseInPieces(body, {cut});
        const bool ok = r.finished && r.rec.parts.size() == 1 && r.rec.parts[0].data == content &&
                        r.rec.parts[0].ended &&
                        r.rec.parts[0].headers.filename == "/home/u/a\"b.txt";
        if (!ok) {
            report(false, __FILE__, __LINE__,
                   "split at " + std::to_string(cut) + " parsed wrongly");
            return;
        }
    }
    std::vector<std::size_t> everyByte;
    for (std::size_t i = 1; i < body.size(); ++i) {
        everyByte.push_back(i);
    }
    const ParseResult r = parseInPieces(body, everyByte);
    CHECK(r.finished);
    CHECK_EQ(r.rec.parts.size() == 1 ? r.rec.parts[0].data : std::string(), content);
    CHECK_EQ(r.rec.parts.size() == 1 ? r.rec.parts[0].headers.contentType : std::string(),
             std::string("application/octet-stream"));
    CHECK_EQ(r.rec.parts.size() == 1 ? r.rec.parts[0].headers.name : std::string(),
             std::string("file"));
}

void testMultipartLargeRandom()
{
    // 4 MiB of random bytes in random pieces: data comes out intact and the
    // parser never holds more than a delimiter's worth of it.
    std::mt19937 rng(1234);
    std::string content(4 << 20, '\0');
    for (char &c : content) {
        c = static_cast<char>(rng() & 0xFF);
    }
    const std::string body = hopliftBody("big.bin", content);
    std::vector<std::size_t> cuts;
    for (std::size_t pos = 0;;) {
        pos += 1 + rng() % 70000;
        if (pos >= body.size()) {
            break;
        }
        cuts.push_back(pos);
    }
    const ParseResult r = parseInPieces(body, cuts);
    CHECK(r.finished);
    CHECK(r.rec.parts.size() == 1 && r.rec.parts[0].data == content);
    CHECK(r.maxBuffered < 2 + boundary.size() + 2);
}

void testMultipartShapes()
{
    // Preamble, a text field before the file, transport padding after a
    // delimiter, no CRLF after the closing delimiter, and an epilogue.
    const std::string body =
        "preamble text\r\n--" + boundary +
        "\r\nContent-Disposition: form-data; name=\"comment\"\r\n\r\nhello\r\n--" + boundary +
        "  \t\r\ncontent-disposition: form-data; filename=\"x.bin\"; name=file\r\n\r\n" +
        "DATA\r\n--" + boundary + "--";
    ParseResult r = parseInPieces(body, {});
    CHECK(r.finished);
    CHECK_EQ(static_cast<long long>(r.rec.parts.size()), 2LL);
    if (r.rec.parts.size() == 2) {
        CHECK_EQ(r.rec.parts[0].headers.name, std::string("comment"));
        CHECK(!r.rec.parts[0].headers.filename.has_value());
        CHECK_EQ(r.rec.parts[0].data, std::string("hello"));
        CHECK_EQ(r.rec.parts[1].headers.name, std::string("file"));
        CHECK_EQ(r.rec.parts[1].headers.filename.value_or("?"), std::string("x.bin"));
        CHECK_EQ(r.rec.parts[1].data, std::string("DATA"));
    }
    const ParseResult withEpilogue =
        parseInPieces(body + "\r\nepilogue --" + boundary + " junk", {});
    CHECK(withEpilogue.finished && withEpilogue.rec.parts.size() == 2);

    // An empty file is still a file.
    const ParseResult empty = parseInPieces(hopliftBody("empty", ""), {});
    CHECK(empty.finished && empty.rec.parts.size() == 1 && empty.rec.parts[0].data.empty() &&
          empty.rec.parts[0].ended);
}

void testMultipartMalformed()
{
    const std::string body = hopliftBody("x", "some content");
    // Truncated anywhere before the closing "--": never complete.
    const std::size_t closing = body.size() - 4; // "--\r\n"
    for (std::size_t len = 0; len < closing; ++len) {
        const ParseResult r = parseInPieces(body.substr(0, len), {});
        if (r.finished) {
            report(false, __FILE__, __LINE__,
                   "body cut to " + std::to_string(len) + " bytes was accepted");
            return;
        }
    }
    CHECK(parseInPieces(body.substr(0, closing + 2), {}).finished); // final CRLF is optional

    // A delimiter followed by junk fails at once, and the parser does not
    // keep buffering the rest of the body.
    {
        Recorder rec;
        MultipartParser parser(boundary, rec);
        const std::string start =
            "--" + boundary + "\r\nContent-Disposition: form-data; name=\"file\"\r\n\r\nabc\r\n--" +
            boundary + "X";
        const bool first = parser.feed(start.data(), start.size());
        const std::string junk(1 << 20, 'j');
        const bool second = parser.feed(junk.data(), junk.size());
        CHECK(!first);
        CHECK(!second);
        CHECK(parser.status() == MultipartParser::Status::Malformed);
        CHECK(parser.buffered() == 0);
    }
    // A header line that never ends.
    {
        Recorder rec;
        MultipartParser parser(boundary, rec);
        const std::string start = "--" + boundary + "\r\nContent-Disposition: form-data; name=\"";
        parser.feed(start.data(), start.size());
        const std::string chunk(4096, 'a');
        bool ok = true;
        std::size_t maxBuffered = 0;
        for (int i = 0; i < 64 && ok; ++i) {
            ok = parser.feed(chunk.data(), chunk.size());
            maxBuffered = std::max(maxBuffered, parser.buffered());
        }
        CHECK(!ok);
        CHECK(maxBuffered <= MultipartParser::maxHeaderLine + chunk.size());
    }
    // A body that never contains the boundary: preamble stays bounded.
    {
        Recorder rec;
        MultipartParser parser(boundary, rec);
        const std::string chunk(65536, 'p');
        for (int i = 0; i < 32; ++i) {
            parser.feed(chunk.data(), chunk.size());
        }
        CHECK(parser.buffered() < 64);
        CHECK(!parser.finish());
        CHECK(rec.parts.empty());
    }
    // Wrong boundary in the body.
    CHECK(!parseInPieces(
               "--other\r\nContent-Disposition: form-data; name=\"file\"\r\n\r\nx\r\n--other--\r\n",
               {})
               .finished);
    // A part without Content-Disposition, or with a header line lacking ':'.
    CHECK(!parseInPieces("--" + boundary + "\r\nContent-Type: text/plain\r\n\r\nx\r\n--" +
                             boundary + "--\r\n",
                         {})
               .finished);
    CHECK(!parseInPieces("--" + boundary + "\r\nContent-Disposition form-data\r\n\r\nx\r\n--" +
                             boundary + "--\r\n",
                         {})
               .finished);
    // The handler can stop the parser.
    {
        Recorder rec;
        rec.abortOnData = true;
        MultipartParser parser(boundary, rec);
        const std::string b = hopliftBody("x", std::string(1000, 'z'));
        CHECK(!parser.feed(b.data(), b.size()));
        CHECK(parser.status() == MultipartParser::Status::Aborted);
    }
}

void testContentDisposition()
{
    struct Case
    {
        std::string value;
        bool valid;
        std::string name;
        std::optional<std::string> filename;
    };
    const std::vector<Case> cases = {
        {"form-data; name=\"file\"; filename=\"a\"b.txt\"", true, "file", "a\"b.txt"},
        {"form-data; name=\"file\"; filename=\"/home/u/x.txt\"", true, "file", "/home/u/x.txt"},
        {"form-data; name=\"file\"; filename=\"\"", true, "file", ""},
        {"form-data; name=\"file\"; filename=\"\"\"", true, "file", "\""},
        {"form-data; name=\"file\"; filename=\"a;b=c.txt\"", true, "file", "a;b=c.txt"},
        {"form-data; name=\"file\"; filename=\"x\"; filename*=UTF-8''y", true, "file", "x"},
        {"FORM-DATA;NAME=\"file\";FILENAME=\"u\"", true, "file", "u"},
        {"form-data; filename=\"first\"; name=\"file\"", true, "file", "first"},
        {"form-data; name=file", true, "file", std::nullopt},
        {"attachment; name=\"file\"", false, "", std::nullopt},
        {"form-data; filename=\"x\"", false, "", std::nullopt},
        {"form-data; name=\"file\"; filename=\"unterminated", false, "", std::nullopt},
        {"form-data; name", false, "", std::nullopt},
    };
    for (const Case &c : cases) {
        const auto parsed = parseContentDisposition(c.value);
        report(parsed.has_value() == c.valid, __FILE__, __LINE__, "validity of " + show(c.value));
        if (parsed && c.valid) {
            report(parsed->name == c.name && parsed->filename == c.filename, __FILE__, __LINE__,
                   "fields of " + show(c.value) + ": name " + show(parsed->name) + ", filename " +
                       show(parsed->filename.value_or("<none>")));
        }
    }
}

void testBoundary()
{
    CHECK_EQ(multipartBoundary("multipart/form-data; boundary=0xKhTmLbOuNdArY").value_or("?"),
             boundary);
    CHECK_EQ(multipartBoundary("Multipart/Form-Data;boundary=\"a b:c\"").value_or("?"),
             std::string("a b:c"));
    CHECK_EQ(multipartBoundary("multipart/form-data; charset=utf-8; BOUNDARY=xyz").value_or("?"),
             std::string("xyz"));
    CHECK(!multipartBoundary("multipart/form-data"));
    CHECK(!multipartBoundary("multipart/form-data; boundary="));
    CHECK(!multipartBoundary("multipart/form-data; boundary=\"\""));
    CHECK(!multipartBoundary("multipart/mixed; boundary=abc"));
    CHECK(!multipartBoundary("application/octet-stream"));
    CHECK(!multipartBoundary("multipart/form-data; boundary=" + std::string(201, 'b')));
}

void testSafeFileName()
{
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"../../etc/passwd", "passwd"},
        {"a\"b.txt", "a\"b.txt"},
        {"/home/u/x.txt", "x.txt"},
        {"", "unnamed"},
        {".", "unnamed"},
        {"..", "unnamed"},
        {"dir/", "unnamed"},
        {"/", "unnamed"},
        {"C:\\Users\\u\\report.doc", "report.doc"},
        {"a\x01"
         "b\tc\x7f.txt",
         "abc.txt"},
        {"\xc2\x85x\xc2\x9f.txt", "x.txt"},
        {".bashrc", "_bashrc"},
        {"  spaced name  ", "spaced name"},
        {"bad\xff\xfeutf8.txt", "bad__utf8.txt"},
        {"caf\xc3\xa9 \xe2\x82\xac.txt", "caf\xc3\xa9 \xe2\x82\xac.txt"},
        {"\xed\xa0\x80surrogate", "___surrogate"},
        {"<script>alert(1)</script>", "script>"},
    };
    for (const auto &[in, expected] : cases) {
        report(safeFileName(in) == expected, __FILE__, __LINE__,
               "safeFileName(" + show(in) + ") is " + show(safeFileName(in)) + ", expected " +
                   show(expected));
    }
    const std::string longAscii = safeFileName(std::string(300, 'a') + ".txt");
    CHECK(longAscii.size() == 200 && longAscii.ends_with(".txt"));
    std::string euros;
    for (int i = 0; i < 120; ++i) {
        euros += "\xe2\x82\xac";
    }
    const std::string longUtf8 = safeFileName(euros + ".bin");
    CHECK(longUtf8.size() <= 200 && longUtf8.ends_with(".bin"));
    CHECK(sanitizeUtf8(longUtf8) == longUtf8);
}

void testNumberedName()
{
    CHECK_EQ(numberedName("report.pdf", 1), std::string("report.pdf"));
    CHECK_EQ(numberedName("report.pdf", 2), std::string("report (2).pdf"));
    CHECK_EQ(numberedName("README", 3), std::string("README (3)"));
    CHECK_EQ(numberedName("archive.tar.gz", 2), std::string("archive.tar (2).gz"));
    CHECK_EQ(numberedName("_bashrc", 12), std::string("_bashrc (12)"));
}

fs::path makeTempDir()
{
    std::string pattern = (fs::temp_directory_path() / "kelvara-unit-XXXXXX").string();
    if (!::mkdtemp(pattern.data())) {
        std::perror("mkdtemp");
        std::exit(2);
    }
    return pattern;
}

std::vector<std::string> folderNames(const fs::path &dir)
{
    std::vector<std::string> names;
    for (const auto &e : fs::directory_iterator(dir)) {
        names.push_back(e.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

void testStorage()
{
    const fs::path root = makeTempDir();
    {
        // Leftovers of an earlier run are cleaned up on start.
        fs::create_directories(root / "acct");
        std::ofstream(root / "acct" / ".upload-stale") << "partial";
        std::ofstream(root / "acct" / "kept.txt") << "12345";
        AccountStore store((root / "acct").string(), 100);
        std::string error;
        CHECK(store.prepare(error));
        CHECK(folderNames(root / "acct") == std::vector<std::string>{"kept.txt"});
        CHECK_EQ(static_cast<long long>(store.available()), 95LL);

        // Exact fit is accepted; the same name again gets a number.
        std::string payload(95, 'x');
        {
            Upload up(store);
            CHECK(up.open(error));
            CHECK(up.write(payload.data(), 50) == Upload::WriteResult::Ok);
            CHECK_EQ(static_cast<long long>(store.available()), 45LL); // in-progress bytes count
            CHECK(up.write(payload.data(), 45) == Upload::WriteResult::Ok);
            bool full = false;
            CHECK_EQ(up.commit("kept.txt", error, full).value_or("?"), std::string("kept (2).txt"));
        }
        CHECK_EQ(static_cast<long long>(store.available()), 0LL);
        CHECK_EQ(static_cast<long long>(fs::file_size(root / "acct" / "kept (2).txt")), 95LL);
        CHECK_EQ(std::string(std::istreambuf_iterator<char>(
                                 std::ifstream(root / "acct" / "kept.txt").rdbuf()),
                             {}),
                 std::string("12345"));

        // One byte over: refused, and nothing is left behind.
        fs::remove(root / "acct" / "kept (2).txt");
        CHECK_EQ(static_cast<long long>(store.available()), 95LL);
        {
            Upload up(store);
            CHECK(up.open(error));
            CHECK(up.write(payload.data(), 95) == Upload::WriteResult::Ok);
            CHECK(up.write("!", 1) == Upload::WriteResult::OverQuota);
        }
        CHECK(folderNames(root / "acct") == std::vector<std::string>{"kept.txt"});
        CHECK_EQ(static_cast<long long>(store.available()), 95LL);

        // Abandoned without commit (a dropped connection): no file, no claim.
        {
            Upload up(store);
            CHECK(up.open(error));
            CHECK(up.write(payload.data(), 10) == Upload::WriteResult::Ok);
            CHECK(folderNames(root / "acct").size() == 2);
        }
        CHECK(folderNames(root / "acct") == std::vector<std::string>{"kept.txt"});
        CHECK_EQ(static_cast<long long>(store.available()), 95LL);
    }
    {
        AccountStore unlimited((root / "free").string(), -1);
        std::string error;
        CHECK(unlimited.prepare(error));
        CHECK_EQ(static_cast<long long>(unlimited.available()), -1LL);
        const std::string big(1 << 20, 'b');
        Upload up(unlimited);
        CHECK(up.open(error));
        CHECK(up.write(big.data(), big.size()) == Upload::WriteResult::Ok);
        bool full = false;
        CHECK_EQ(up.commit("unnamed", error, full).value_or("?"), std::string("unnamed"));
        CHECK_EQ(static_cast<long long>(fs::file_size(root / "free" / "unnamed")),
                 static_cast<long long>(big.size()));
    }
    fs::remove_all(root);
}

void testAccounts()
{
    const std::string good = "# comment\n"
                             "[alice]\n"
                             "password = p:w = x\n"
                             "quota = 10 MiB\n"
                             "first_name = Alice\n"
                             "last_name = \" Liddell \"\n"
                             "branding = yes\n"
                             "title = Alice & Co\n"
                             "top_color = #a0b0c0\n"
                             "logo = art/logo.png\n"
                             "\r\n"
                             "[bob]\r\n"
                             "password = secret\r\n"
                             "quota = unlimited\r\n";
    std::string error;
    const auto parsed = parseAccounts(good, "/etc/kl", error);
    CHECK(parsed.has_value());
    if (parsed && parsed->size() == 2) {
        const Account &a = (*parsed)[0];
        CHECK_EQ(a.password, std::string("p:w = x"));
        CHECK_EQ(static_cast<long long>(a.quota), 10LL << 20);
        CHECK_EQ(a.lastName, std::string(" Liddell "));
        CHECK(a.branding.has_value());
        if (a.branding) {
            CHECK_EQ(a.branding->title, std::string("Alice & Co"));
            CHECK_EQ(a.branding->topColor, std::string("#A0B0C0"));
            CHECK_EQ(a.branding->bottomColor, std::string("#1F3F66"));
            CHECK_EQ(a.branding->logoFile, std::string("/etc/kl/art/logo.png"));
        }
        const Account &b = (*parsed)[1];
        CHECK_EQ(b.user, std::string("bob"));
        CHECK_EQ(b.password, std::string("secret"));
        CHECK_EQ(static_cast<long long>(b.quota), -1LL);
        CHECK_EQ(b.firstName, std::string("bob"));
        CHECK(!b.branding.has_value());
    } else {
        report(false, __FILE__, __LINE__, "good accounts file rejected: " + error);
    }

    const std::vector<std::pair<std::string, std::string>> bad = {
        {"[a]\npassword = x\ncolour = red\n", "line 3: unknown key"},
        {"[a]\npassword = x\n[a]\npassword = y\n", "line 3: account 'a' appears twice"},
        {"[../x]\npassword = x\n", "line 1: invalid user name"},
        {"[a]\npassword = x\nbranding = yes\ntop_color = blue\n", "line 4: top_color"},
        {"[a]\npassword = x\nquota = 12XB\n", "line 3: quota"},
        {"[a]\npassword = x\nquota = 99999999999 TiB\n", "line 3: quota"},
        {"password = x\n[a]\n", "line 1: key outside"},
        {"[a]\npassword = x\ntitle = T\n", "line 3: title needs 'branding = yes'"},
        {"\n[a]\nquota = 5\n", "line 2: account 'a' has no password"},
        {"[a]\npassword = x\npassword = y\n", "line 3: 'password' given twice"},
        {"[a]\npassword = \xff\n", "line 2: not valid UTF-8"},
        {"[a]\npassword\n", "line 2: expected key = value"},
        {"# nothing\n", "no accounts defined"},
    };
    for (const auto &[text, expected] : bad) {
        std::string err;
        const auto result = parseAccounts(text, "", err);
        report(!result && err.find(expected) != std::string::npos, __FILE__, __LINE__,
               "accounts " + show(text) + " gave error " + show(err) + ", expected " +
                   show(expected));
    }
}

void testTextHelpers()
{
    CHECK_EQ(decodeBase64("ZGVtbzpkZW1v").value_or("?"), std::string("demo:demo"));
    CHECK_EQ(decodeBase64("ZA==").value_or("?"), std::string("d"));
    CHECK_EQ(decodeBase64("ZGU=").value_or("?"), std::string("de"));
    CHECK_EQ(decodeBase64("").value_or("?"), std::string(""));
    CHECK(!decodeBase64("ZB==")); // non-zero padding bits
    CHECK(!decodeBase64("ZGVtbzpkZW1"));
    CHECK(!decodeBase64("ZG!tbzpk"));
    CHECK(!decodeBase64("=GVt"));

    CHECK_EQ(static_cast<long long>(parseByteCount("2GiB").value_or(-2)), 2147483648LL);
    CHECK_EQ(static_cast<long long>(parseByteCount(" 10 kib ").value_or(-2)), 10240LL);
    CHECK_EQ(static_cast<long long>(parseByteCount("9223372036854775807").value_or(-2)),
             9223372036854775807LL);
    CHECK(!parseByteCount("9223372036854775808"));
    CHECK(!parseByteCount("8388608 TiB"));
    CHECK(!parseByteCount("-1"));
    CHECK(!parseByteCount("1.5GiB"));

    CHECK_EQ(escapeMarkup("<a href=\"x\">&'</a>"),
             std::string("&lt;a href=&quot;x&quot;&gt;&amp;&#39;&lt;/a&gt;"));
}

} // namespace

int main()
{
    testMultipartSplits();
    testMultipartLargeRandom();
    testMultipartShapes();
    testMultipartMalformed();
    testContentDisposition();
    testBoundary();
    testSafeFileName();
    testNumberedName();
    testStorage();
    testAccounts();
    testTextHelpers();
    std::printf("%d passed, %d failed\n", checks - failures, failures);
    return failures == 0 ? 0 : 1;
}
