// The kelvara HTTP API as served by kelvara-local.
#pragma once

#include "accounts.h"
#include "storage.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace httplib {
class Server;
struct Request;
struct Response;
class ContentReader;
} // namespace httplib

namespace kelvara {

struct ServiceOptions
{
    std::string dataDir;
    bool chunked = false;     // answer with Transfer-Encoding: chunked
    std::string redirectTo;   // answer everything with 302 to this base URL
    std::int64_t delayMs = 0; // wait this long before each answer
};

class Service
{
public:
    Service(ServiceOptions options, std::vector<Account> accounts);
    ~Service();

    // Creates the account folders and prepares the branding artwork.
    bool prepare(std::string &error);
    void install(httplib::Server &server);
    // Makes uploads in progress and pending delays give up promptly.
    void beginShutdown();

    // A body whose Content-Length exceeds the free space by more than this is
    // refused before it is read: no multipart framing needs this much.
    static constexpr std::int64_t framingAllowance = 64 * 1024;
    // Bodies of refused requests are read and thrown away up to this size so
    // that the client, which is still sending, gets to see the answer.
    static constexpr std::uint64_t drainLimit = std::uint64_t{4} << 30;

private:
    struct Entry
    {
        Account account;
        std::unique_ptr<AccountStore> store;
        std::string logoPng;
        std::string backgroundPng;
    };

    void handle(const httplib::Request &req, httplib::Response &res,
                const httplib::ContentReader *reader);
    int checkBeforeBody(const httplib::Request &req, httplib::Response &res);
    int checkExpectation(const httplib::Request &req, httplib::Response &res);
    Entry *authenticate(const httplib::Request &req);
    void upload(const httplib::Request &req, httplib::Response &res,
                const httplib::ContentReader &reader, Entry &entry);
    void reply(httplib::Response &res, int status, std::string body, const std::string &type) const;
    void replyError(httplib::Response &res, int status, const std::string &message) const;
    void replyUnauthorized(httplib::Response &res) const;
    void replyRedirect(const httplib::Request &req, httplib::Response &res) const;
    bool drain(const httplib::ContentReader *reader) const;
    void delay();

    std::string accountXml(Entry &entry) const;
    std::string userXml(const Entry &entry) const;
    std::string listingHtml(Entry &entry) const;

    ServiceOptions options_;
    std::map<std::string, Entry> accounts_;
    std::atomic<bool> stopping_{false};
    std::mutex delayMutex_;
    std::condition_variable delayWake_;
};

} // namespace kelvara
