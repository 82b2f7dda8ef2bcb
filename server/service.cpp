#include "service.h"

#include "artwork.h"
#include "multipart.h"
#include "text.h"

#include <httplib.h>

#include <chrono>
#include <ctime>
#include <fstream>
#include <iterator>
#include <openssl/crypto.h>
#include <sstream>

namespace kelvara {

namespace {

// httplib 0.11 cannot hand a multipart body to a raw content reader (it
// insists on its own multipart parser, which buffers without bound on some
// malformed bodies), so the pre-routing step moves the request's
// Content-Type here and the upload handler parses the stream itself.
constexpr const char *bodyTypeHeader = "X-Kelvara-Body-Type";

constexpr const char *xmlType = "application/xml; charset=utf-8";
constexpr const char *htmlType = "text/html; charset=utf-8";
constexpr const char *xmlDeclaration = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
constexpr std::size_t chunkedPiece = 512;

std::string statusText(int status)
{
    switch (status) {
    case 400:
        return "bad request";
    case 404:
        return "not found";
    case 405:
        return "method not allowed";
    case 413:
        return "request too large";
    case 414:
        return "request target too long";
    case 416:
        return "range not satisfiable";
    case 500:
        return "internal server error";
    default:
        return "request failed with status " + std::to_string(status);
    }
}

bool readFile(const std::string &path, std::string &out)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return false;
    }
    out.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return !in.bad();
}

std::string formatTime(std::int64_t seconds)
{
    const std::time_t t = static_cast<std::time_t>(seconds);
    std::tm tm{};
    gmtime_r(&t, &tm);
    char buf[32];
    std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M UTC", &tm);
    return buf;
}

// Receives the parts of an upload body and writes the "file" part to disk.
class UploadSink : public MultipartHandler
{
public:
    enum class Outcome
    {
        Stored,
        OverQuota,
        DiskFull,
        IoError
    };

    explicit UploadSink(AccountStore &store) : upload_(store) {}

    bool partBegin(const PartHeaders &headers) override
    {
        inFile_ = false;
        if (headers.name != "file" || sawFile_) {
            return true; // other form fields are ignored
        }
        sawFile_ = true;
        inFile_ = true;
        filename_ = headers.filename.value_or("");
        if (!upload_.open(error_)) {
            outcome_ = Outcome::IoError;
            inFile_ = false;
        }
        return true;
    }

    bool partData(const char *data, std::size_t size) override
    {
        if (!inFile_) {
            return true;
        }
        switch (upload_.write(data, size)) {
        case Upload::WriteResult::Ok:
            return true;
        case Upload::WriteResult::OverQuota:
            outcome_ = Outcome::OverQuota;
            break;
        case Upload::WriteResult::DiskFull:
            outcome_ = Outcome::DiskFull;
            break;
        case Upload::WriteResult::IoError:
            outcome_ = Outcome::IoError;
            error_ = "cannot write the asset";
            break;
        }
        // Keep reading (and discarding) the body so the client sees the answer.
        inFile_ = false;
        upload_.abort();
        return true;
    }

    bool partEnd() override
    {
        if (inFile_) {
            inFile_ = false;
            fileComplete_ = true;
        }
        return true;
    }

    bool sawFile() const { return sawFile_; }
    bool fileComplete() const { return fileComplete_; }
    Outcome outcome() const { return outcome_; }
    const std::string &filename() const { return filename_; }
    const std::string &error() const { return error_; }
    Upload &upload() { return upload_; }

private:
    Upload upload_;
    bool sawFile_ = false;
    bool inFile_ = false;
    bool fileComplete_ = false;
    Outcome outcome_ = Outcome::Stored;
    std::string filename_;
    std::string error_;
};

} // namespace

Service::Service(ServiceOptions options, std::vector<Account> accounts)
    : options_(std::move(options))
{
    for (Account &account : accounts) {
        const std::string user = account.user;
        auto store = std::make_unique<AccountStore>(options_.dataDir + "/" + user, account.quota);
        accounts_.emplace(user, Entry{std::move(account), std::move(store), {}, {}});
    }
}

Service::~Service() = default;

bool Service::prepare(std::string &error)
{
    for (auto &[user, entry] : accounts_) {
        if (!entry.store->prepare(error)) {
            return false;
        }
        if (!entry.account.branding) {
            continue;
        }
        const Branding &b = *entry.account.branding;
        const auto load = [&](const std::string &path, std::string &out) {
            if (!readFile(path, out)) {
                error = "cannot read " + path;
                return false;
            }
            if (out.size() < 8 || out.compare(0, 8, "\x89PNG\r\n\x1a\n") != 0) {
                error = path + " is not a PNG image";
                return false;
            }
            return true;
        };
        if (!b.logoFile.empty()) {
            if (!load(b.logoFile, entry.logoPng)) {
                return false;
            }
        } else {
            entry.logoPng = makeLogoPng(parseColor(b.topColor), parseColor(b.bottomColor),
                                        parseColor(b.fontColor));
        }
        if (!b.backgroundFile.empty()) {
            if (!load(b.backgroundFile, entry.backgroundPng)) {
                return false;
            }
        } else {
            entry.backgroundPng =
                makeBackgroundPng(parseColor(b.topColor), parseColor(b.bottomColor));
        }
    }
    return true;
}

void Service::install(httplib::Server &server)
{
    server.set_pre_routing_handler([](const httplib::Request &constReq, httplib::Response &) {
        // The Request object is owned non-const by httplib; see bodyTypeHeader.
        auto &req = const_cast<httplib::Request &>(constReq);
        req.headers.erase(bodyTypeHeader);
        auto it = req.headers.find("Content-Type");
        if (it != req.headers.end()) {
            const std::string value = it->second;
            req.headers.erase("Content-Type");
            req.headers.emplace(bodyTypeHeader, value);
        }
        return httplib::Server::HandlerResponse::Unhandled;
    });

    const auto plain = [this](const httplib::Request &req, httplib::Response &res) {
        handle(req, res, nullptr);
    };
    const auto withBody = [this](const httplib::Request &req, httplib::Response &res,
                                 const httplib::ContentReader &reader) {
        handle(req, res, &reader);
    };
    server.Get(".*", plain);
    server.Options(".*", plain);
    server.Post(".*", withBody);
    server.Put(".*", withBody);
    server.Patch(".*", withBody);
    server.Delete(".*", withBody);

    server.set_expect_100_continue_handler(
        [this](const httplib::Request &req, httplib::Response &res) {
            return checkBeforeBody(req, res);
        });

    server.set_error_handler(httplib::Server::HandlerWithResponse(
        [this](const httplib::Request &, httplib::Response &res) {
            // Only for errors httplib produces itself (bad request line, ...).
            if (!res.body.empty() || res.content_provider_) {
                return httplib::Server::HandlerResponse::Unhandled;
            }
            replyError(res, res.status, statusText(res.status));
            return httplib::Server::HandlerResponse::Handled;
        }));

    server.set_post_routing_handler(
        [this](const httplib::Request &, httplib::Response &) { delay(); });

    server.set_exception_handler(
        [this](const httplib::Request &, httplib::Response &res, std::exception_ptr ep) {
            std::string what = "internal error";
            try {
                std::rethrow_exception(ep);
            } catch (const std::exception &e) {
                what += std::string(": ") + e.what();
            } catch (...) {
            }
            res.body.clear();
            res.content_provider_ = nullptr;
            replyError(res, 500, what);
        });
}

void Service::beginShutdown()
{
    stopping_ = true;
    std::lock_guard lock(delayMutex_);
    delayWake_.notify_all();
}

void Service::delay()
{
    if (options_.delayMs <= 0) {
        return;
    }
    std::unique_lock lock(delayMutex_);
    delayWake_.wait_for(lock, std::chrono::milliseconds(options_.delayMs),
                        [this] { return stopping_.load(); });
}

void Service::reply(httplib::Response &res, int status, std::string body,
                    const std::string &type) const
{
    res.status = status;
    if (!options_.chunked) {
        res.set_content(std::move(body), type);
        return;
    }
    // Small pieces so that clients see several chunks even for short answers.
    auto shared = std::make_shared<std::string>(std::move(body));
    res.body.clear();
    res.set_chunked_content_provider(type, [shared](std::size_t offset, httplib::DataSink &sink) {
        if (offset < shared->size()) {
            const std::size_t n = std::min(chunkedPiece, shared->size() - offset);
            return sink.write(shared->data() + offset, n);
        }
        sink.done();
        return true;
    });
}

void Service::replyError(httplib::Response &res, int status, const std::string &message) const
{
    reply(res, status,
          std::string(xmlDeclaration) + "<error><status>" + std::to_string(status) +
              "</status><message>" + escapeMarkup(sanitizeUtf8(message)) + "</message></error>\n",
          xmlType);
}

void Service::replyUnauthorized(httplib::Response &res) const
{
    res.set_header("WWW-Authenticate", "Basic realm=\"kelvara\"");
    replyError(res, 401, "authentication required");
}

void Service::replyRedirect(const httplib::Request &req, httplib::Response &res) const
{
    const std::string location = options_.redirectTo + req.target;
    res.set_header("Location", location);
    reply(res, 302,
          "<!DOCTYPE html>\n<title>Moved</title><p>Moved to <a href=\"" + escapeMarkup(location) +
              "\">" + escapeMarkup(location) + "</a>.</p>\n",
          htmlType);
}

bool Service::drain(const httplib::ContentReader *reader) const
{
    if (!reader) {
        return true;
    }
    std::uint64_t total = 0;
    return (*reader)([&](const char *, std::size_t n) {
        total += n;
        return total <= drainLimit && !stopping_;
    });
}

Service::Entry *Service::authenticate(const httplib::Request &req)
{
    const std::string header = req.get_header_value("Authorization");
    if (!startsWithIgnoreCase(header, "Basic ")) {
        return nullptr;
    }
    const auto decoded = decodeBase64(trim(std::string_view(header).substr(6)));
    if (!decoded) {
        return nullptr;
    }
    const std::size_t colon = decoded->find(':');
    if (colon == std::string::npos) {
        return nullptr;
    }
    const auto it = accounts_.find(decoded->substr(0, colon));
    if (it == accounts_.end()) {
        return nullptr;
    }
    const std::string given = decoded->substr(colon + 1);
    const std::string &expected = it->second.account.password;
    if (given.size() != expected.size() ||
        CRYPTO_memcmp(given.data(), expected.data(), given.size()) != 0) {
        return nullptr;
    }
    return &it->second;
}

int Service::checkBeforeBody(const httplib::Request &req, httplib::Response &res)
{
    const int status = checkExpectation(req, res);
    if (status != 100) {
        // httplib writes this answer without adding the framing headers, and
        // the body the client held back must not be taken for a new request.
        if (res.content_provider_) {
            res.set_header("Transfer-Encoding", "chunked");
        } else {
            res.set_header("Content-Length", std::to_string(res.body.size()));
        }
        res.set_header("Connection", "close");
    }
    return status;
}

int Service::checkExpectation(const httplib::Request &req, httplib::Response &res)
{
    // Called for "Expect: 100-continue": answering now spares the client
    // from sending a body that would be refused anyway.
    if (!options_.redirectTo.empty()) {
        replyRedirect(req, res);
        return res.status;
    }
    Entry *entry = authenticate(req);
    if (!entry) {
        replyUnauthorized(res);
        return res.status;
    }
    if (req.method == "POST" && req.path == "/api/assets") {
        if (!multipartBoundary(req.get_header_value("Content-Type"))) {
            replyError(res, 400, "expected a multipart/form-data body with a boundary");
            return res.status;
        }
        if (req.has_header("Content-Length") && entry->store->quota() >= 0) {
            const auto length = req.get_header_value<std::uint64_t>("Content-Length");
            const std::int64_t available = entry->store->available();
            if (length > static_cast<std::uint64_t>(std::max<std::int64_t>(available, 0) +
                                                    framingAllowance)) {
                replyError(res, 413,
                           "not enough space left in the account: " + std::to_string(available) +
                               " bytes free");
                return res.status;
            }
        }
    }
    return 100;
}

void Service::handle(const httplib::Request &req, httplib::Response &res,
                     const httplib::ContentReader *reader)
{
    if (!options_.redirectTo.empty()) {
        drain(reader);
        replyRedirect(req, res);
        return;
    }
    Entry *entry = authenticate(req);
    if (!entry) {
        drain(reader);
        replyUnauthorized(res);
        return;
    }
    const bool isGet = req.method == "GET" || req.method == "HEAD";
    const auto onlyGet = [&]() {
        if (isGet) {
            return true;
        }
        drain(reader);
        res.set_header("Allow", "GET, HEAD");
        replyError(res, 405, "method not allowed");
        return false;
    };
    const std::string &path = req.path;
    if (path == "/api/assets") {
        if (req.method != "POST" || !reader) {
            drain(reader);
            res.set_header("Allow", "POST");
            replyError(res, 405, "method not allowed");
            return;
        }
        upload(req, res, *reader, *entry);
        return;
    }
    if (path == "/" || path == "/index.html") {
        if (onlyGet()) {
            reply(res, 200, listingHtml(*entry), htmlType);
        }
        return;
    }
    if (path == "/api/account.xml") {
        if (onlyGet()) {
            res.set_header("Cache-Control", "no-store");
            reply(res, 200, accountXml(*entry), xmlType);
        }
        return;
    }
    if (path == "/api/user") {
        if (onlyGet()) {
            res.set_header("Cache-Control", "no-store");
            reply(res, 200, userXml(*entry), xmlType);
        }
        return;
    }
    const std::string brandingPrefix = "/branding/" + entry->account.user + "/";
    if (entry->account.branding && path.rfind(brandingPrefix, 0) == 0) {
        const std::string file = path.substr(brandingPrefix.size());
        const std::string *png = file == "logo.png"         ? &entry->logoPng
                                 : file == "background.png" ? &entry->backgroundPng
                                                            : nullptr;
        if (png) {
            if (onlyGet()) {
                res.set_header("Cache-Control", "max-age=3600");
                reply(res, 200, *png, "image/png");
            }
            return;
        }
    }
    drain(reader);
    replyError(res, 404, "no such resource: " + path);
}

void Service::upload(const httplib::Request &req, httplib::Response &res,
                     const httplib::ContentReader &reader, Entry &entry)
{
    const auto boundary = multipartBoundary(req.get_header_value(bodyTypeHeader));
    if (!boundary) {
        drain(&reader);
        replyError(res, 400, "expected a multipart/form-data body with a boundary");
        return;
    }
    AccountStore &store = *entry.store;
    if (store.quota() >= 0 && req.has_header("Content-Length")) {
        const auto length = req.get_header_value<std::uint64_t>("Content-Length");
        const std::int64_t available = store.available();
        if (length >
            static_cast<std::uint64_t>(std::max<std::int64_t>(available, 0) + framingAllowance)) {
            drain(&reader);
            replyError(res, 413,
                       "not enough space left in the account: " + std::to_string(available) +
                           " bytes free");
            return;
        }
    }

    UploadSink sink(store);
    MultipartParser parser(*boundary, sink);
    std::uint64_t received = 0;
    const bool bodyRead = reader([&](const char *data, std::size_t size) {
        received += size;
        if (stopping_) {
            return false;
        }
        if (parser.status() == MultipartParser::Status::Ok) {
            parser.feed(data, size);
        }
        // Once the upload has failed, the rest is only read so that the
        // client gets to see the answer, and only up to a limit.
        const bool failed = parser.status() != MultipartParser::Status::Ok ||
                            sink.outcome() != UploadSink::Outcome::Stored;
        return !failed || received <= drainLimit;
    });
    if (!bodyRead) {
        sink.upload().abort();
        if (stopping_) {
            replyError(res, 503, "the server is shutting down");
        } else {
            replyError(res, 400, "the request body ended early or could not be read");
        }
        return;
    }
    if (!parser.finish()) {
        sink.upload().abort();
        replyError(res, 400, "malformed multipart body: " + parser.error());
        return;
    }
    switch (sink.outcome()) {
    case UploadSink::Outcome::OverQuota:
        replyError(res, 413,
                   "not enough space left in the account: " + std::to_string(store.available()) +
                       " bytes free");
        return;
    case UploadSink::Outcome::DiskFull:
        replyError(res, 507, "the server's disk is full");
        return;
    case UploadSink::Outcome::IoError:
        replyError(res, 500, sink.error());
        return;
    case UploadSink::Outcome::Stored:
        break;
    }
    if (!sink.sawFile() || !sink.fileComplete()) {
        replyError(res, 400, "the body has no part named \"file\"");
        return;
    }
    std::string error;
    bool diskFull = false;
    const std::int64_t size = sink.upload().size();
    const auto name = sink.upload().commit(safeFileName(sink.filename()), error, diskFull);
    if (!name) {
        replyError(res, diskFull ? 507 : 500, error);
        return;
    }
    reply(res, 201,
          std::string(xmlDeclaration) + "<asset><name>" + escapeMarkup(*name) + "</name><size>" +
              std::to_string(size) + "</size></asset>\n",
          xmlType);
}

std::string Service::accountXml(Entry &entry) const
{
    std::string xml = xmlDeclaration;
    xml += "<account><stats available_space=\"" + std::to_string(entry.store->available()) + "\"/>";
    if (const auto &b = entry.account.branding) {
        const std::string base = "/branding/" + entry.account.user + "/";
        xml += "<branding/><branding_info>";
        xml += "<title>" + escapeMarkup(b->title) + "</title>";
        xml += "<logo>" + escapeMarkup(base + "logo.png") + "</logo>";
        xml += "<background_image>" + escapeMarkup(base + "background.png") + "</background_image>";
        xml += "<font_color>" + b->fontColor + "</font_color>";
        xml += "<top_color>" + b->topColor + "</top_color>";
        xml += "<bottom_color>" + b->bottomColor + "</bottom_color>";
        xml += "</branding_info>";
    }
    xml += "</account>\n";
    return xml;
}

std::string Service::userXml(const Entry &entry) const
{
    return std::string(xmlDeclaration) + "<user><first-name>" +
           escapeMarkup(entry.account.firstName) + "</first-name><last-name>" +
           escapeMarkup(entry.account.lastName) + "</last-name></user>\n";
}

std::string Service::listingHtml(Entry &entry) const
{
    const auto assets = entry.store->list();
    const std::int64_t available = entry.store->available();
    std::int64_t used = 0;
    for (const auto &a : assets) {
        used += a.size;
    }
    std::ostringstream html;
    html << "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
         << "<title>kelvara - " << escapeMarkup(entry.account.user) << "</title>\n"
         << "<style>body{font-family:sans-serif;margin:2em}table{border-collapse:collapse}"
            "td,th{padding:.3em .8em;border-bottom:1px solid #ccc;text-align:left}"
            "td.size{text-align:right}</style>\n</head>\n<body>\n"
         << "<h1>Assets of " << escapeMarkup(entry.account.firstName) << ' '
         << escapeMarkup(entry.account.lastName) << " (" << escapeMarkup(entry.account.user)
         << ")</h1>\n"
         << "<p id=\"usage\">" << assets.size() << (assets.size() == 1 ? " asset" : " assets")
         << ", " << escapeMarkup(humanSize(used)) << " stored, "
         << (available < 0 ? std::string("unlimited space")
                           : escapeMarkup(humanSize(available)) + " free")
         << ".</p>\n";
    if (assets.empty()) {
        html << "<p>No assets yet.</p>\n";
    } else {
        html << "<table>\n<thead><tr><th>Name</th><th>Size</th><th>Bytes</th><th>Stored</th></tr></"
                "thead>\n"
                "<tbody>\n";
        for (const auto &a : assets) {
            html << "<tr><td class=\"name\">" << escapeMarkup(sanitizeUtf8(a.name))
                 << "</td><td class=\"size\">" << escapeMarkup(humanSize(a.size))
                 << "</td><td class=\"size bytes\">" << a.size << "</td><td>"
                 << formatTime(a.modified) << "</td></tr>\n";
        }
        html << "</tbody>\n</table>\n";
    }
    html << "</body>\n</html>\n";
    return html.str();
}

} // namespace kelvara
