#include "storage.h"

#include "text.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace kelvara {

namespace {

constexpr std::size_t maxNameBytes = 200;
constexpr std::size_t writeBufferSize = 256 * 1024;

std::mutex tempRegistryMutex;
std::set<std::string> tempRegistry;

void registerTemp(const std::string &path)
{
    std::lock_guard lock(tempRegistryMutex);
    tempRegistry.insert(path);
}

void unregisterTemp(const std::string &path)
{
    std::lock_guard lock(tempRegistryMutex);
    tempRegistry.erase(path);
}

bool isContinuationByte(char c)
{
    return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

// Cuts text to at most max bytes without splitting a UTF-8 sequence.
std::string cutUtf8(const std::string &text, std::size_t max)
{
    if (text.size() <= max) {
        return text;
    }
    std::size_t end = max;
    while (end > 0 && isContinuationByte(text[end])) {
        --end;
    }
    return text.substr(0, end);
}

} // namespace

std::string safeFileName(std::string_view sent)
{
    const std::string utf8 = sanitizeUtf8(sent);
    const std::size_t slash = utf8.find_last_of("/\\");
    const std::string last = slash == std::string::npos ? utf8 : utf8.substr(slash + 1);

    std::string clean;
    clean.reserve(last.size());
    for (std::size_t i = 0; i < last.size(); ++i) {
        const auto c = static_cast<unsigned char>(last[i]);
        if (c < 0x20 || c == 0x7F) {
            continue;
        }
        // C1 control characters U+0080..U+009F are encoded as C2 80..C2 9F.
        if (c == 0xC2 && i + 1 < last.size() && static_cast<unsigned char>(last[i + 1]) <= 0x9F) {
            ++i;
            continue;
        }
        clean += last[i];
    }
    std::string name(trim(clean));
    if (name.empty() || name == "." || name == "..") {
        return "unnamed";
    }
    if (name.front() == '.') {
        name.front() = '_'; // hidden names are reserved for the server's own files
    }
    if (name.size() > maxNameBytes) {
        const std::size_t dot = name.rfind('.');
        std::string ext;
        if (dot != std::string::npos && dot > 0 && name.size() - dot <= 20) {
            ext = name.substr(dot);
        }
        name = cutUtf8(name.substr(0, name.size() - ext.size()), maxNameBytes - ext.size()) + ext;
    }
    return name;
}

std::string numberedName(const std::string &name, int n)
{
    if (n <= 1) {
        return name;
    }
    const std::string suffix = " (" + std::to_string(n) + ")";
    const std::size_t dot = name.rfind('.');
    if (dot == std::string::npos || dot == 0) {
        return name + suffix;
    }
    return name.substr(0, dot) + suffix + name.substr(dot);
}

AccountStore::AccountStore(std::string folder, std::int64_t quota)
    : folder_(std::move(folder)), quota_(quota)
{}

bool AccountStore::prepare(std::string &error)
{
    std::error_code ec;
    fs::create_directories(folder_, ec);
    if (ec || !fs::is_directory(folder_, ec)) {
        error = "cannot create folder " + folder_ + ": " + (ec ? ec.message() : "not a folder");
        return false;
    }
    for (const auto &entry : fs::directory_iterator(folder_, ec)) {
        const std::string name = entry.path().filename().string();
        if (name.rfind(tempPrefix, 0) == 0) {
            fs::remove(entry.path(), ec);
        }
    }
    std::lock_guard lock(mutex_);
    stored_ = scanStoredBytes();
    return true;
}

std::int64_t AccountStore::scanStoredBytes() const
{
    std::int64_t total = 0;
    std::error_code ec;
    for (const auto &entry : fs::directory_iterator(folder_, ec)) {
        if (entry.path().filename().string().front() == '.') {
            continue;
        }
        std::error_code sizeError;
        if (entry.is_regular_file(sizeError)) {
            const auto size = entry.file_size(sizeError);
            if (!sizeError) {
                total += static_cast<std::int64_t>(size);
            }
        }
    }
    return total;
}

std::vector<StoredAsset> AccountStore::list() const
{
    std::vector<StoredAsset> assets;
    std::error_code ec;
    for (const auto &entry : fs::directory_iterator(folder_, ec)) {
        const std::string name = entry.path().filename().string();
        struct stat st;
        if (name.front() == '.' || ::stat(entry.path().c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
            continue;
        }
        assets.push_back(
            {name, static_cast<std::int64_t>(st.st_size), static_cast<std::int64_t>(st.st_mtime)});
    }
    std::sort(assets.begin(), assets.end(),
              [](const StoredAsset &a, const StoredAsset &b) { return a.name < b.name; });
    return assets;
}

std::int64_t AccountStore::available()
{
    std::lock_guard lock(mutex_);
    // Rescan so that files removed by hand from the data folder count.
    stored_ = scanStoredBytes();
    if (quota_ < 0) {
        return -1;
    }
    return quota_ - stored_ - reserved_;
}

bool AccountStore::reserve(std::int64_t bytes)
{
    std::lock_guard lock(mutex_);
    if (quota_ >= 0 && stored_ + reserved_ + bytes > quota_) {
        return false;
    }
    reserved_ += bytes;
    return true;
}

void AccountStore::release(std::int64_t bytes)
{
    std::lock_guard lock(mutex_);
    reserved_ -= bytes;
}

std::optional<std::string> AccountStore::commit(const std::string &tempPath,
                                                const std::string &wanted, std::int64_t size,
                                                std::string &error)
{
    std::lock_guard lock(mutex_);
    for (int n = 1; n <= 10000; ++n) {
        const std::string name = numberedName(wanted, n);
        const std::string target = folder_ + "/" + name;
        // Never replaces an existing asset, even one that appeared a moment ago.
        int rc =
            ::renameat2(AT_FDCWD, tempPath.c_str(), AT_FDCWD, target.c_str(), RENAME_NOREPLACE);
        if (rc != 0 && errno == EINVAL) { // file system without RENAME_NOREPLACE
            rc = ::link(tempPath.c_str(), target.c_str());
            if (rc == 0) {
                ::unlink(tempPath.c_str());
            }
        }
        if (rc == 0) {
            reserved_ -= size;
            stored_ += size;
            return name;
        }
        if (errno != EEXIST) {
            error = std::string("cannot store the asset: ") + std::strerror(errno);
            return std::nullopt;
        }
    }
    error = "too many assets named " + wanted;
    return std::nullopt;
}

Upload::Upload(AccountStore &store) : store_(store) {}

Upload::~Upload()
{
    abort();
}

bool Upload::open(std::string &error)
{
    std::string pattern = store_.folder() + "/" + std::string(AccountStore::tempPrefix) + "XXXXXX";
    fd_ = ::mkostemp(pattern.data(), O_CLOEXEC);
    if (fd_ < 0) {
        error = std::string("cannot create a temporary file: ") + std::strerror(errno);
        return false;
    }
    tempPath_ = pattern;
    registerTemp(tempPath_);
    buffer_.resize(writeBufferSize);
    return true;
}

Upload::WriteResult Upload::flush()
{
    std::size_t done = 0;
    while (done < buffered_) {
        const ssize_t n = ::write(fd_, buffer_.data() + done, buffered_ - done);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return (errno == ENOSPC || errno == EDQUOT) ? WriteResult::DiskFull
                                                        : WriteResult::IoError;
        }
        done += static_cast<std::size_t>(n);
    }
    buffered_ = 0;
    return WriteResult::Ok;
}

Upload::WriteResult Upload::write(const char *data, std::size_t size)
{
    if (fd_ < 0) {
        return WriteResult::IoError;
    }
    if (!store_.reserve(static_cast<std::int64_t>(size))) {
        return WriteResult::OverQuota;
    }
    reserved_ += static_cast<std::int64_t>(size);
    size_ += static_cast<std::int64_t>(size);
    while (size > 0) {
        const std::size_t n = std::min(size, buffer_.size() - buffered_);
        std::memcpy(buffer_.data() + buffered_, data, n);
        buffered_ += n;
        data += n;
        size -= n;
        if (buffered_ == buffer_.size()) {
            if (const WriteResult r = flush(); r != WriteResult::Ok) {
                return r;
            }
        }
    }
    return WriteResult::Ok;
}

std::optional<std::string> Upload::commit(const std::string &wanted, std::string &error,
                                          bool &diskFull)
{
    diskFull = false;
    if (fd_ < 0) {
        error = "upload is not open";
        return std::nullopt;
    }
    if (const WriteResult r = flush(); r != WriteResult::Ok) {
        diskFull = r == WriteResult::DiskFull;
        error = diskFull ? "the server's disk is full" : "cannot write the asset";
        return std::nullopt;
    }
    if (::fdatasync(fd_) != 0 || ::fchmod(fd_, 0644) != 0) {
        diskFull = errno == ENOSPC || errno == EDQUOT;
        error = std::string("cannot write the asset: ") + std::strerror(errno);
        return std::nullopt;
    }
    const int fd = fd_;
    fd_ = -1;
    if (::close(fd) != 0) {
        error = std::string("cannot write the asset: ") + std::strerror(errno);
        return std::nullopt;
    }
    auto name = store_.commit(tempPath_, wanted, size_, error);
    if (name) {
        committed_ = true;
        unregisterTemp(tempPath_);
        tempPath_.clear();
    }
    return name;
}

void Upload::abort()
{
    if (fd_ >= 0) {
        ::close(fd_);
        fd_ = -1;
    }
    if (!tempPath_.empty()) {
        ::unlink(tempPath_.c_str());
        unregisterTemp(tempPath_);
        tempPath_.clear();
    }
    if (!committed_ && reserved_ > 0) {
        store_.release(reserved_);
        reserved_ = 0;
    }
    buffer_.clear();
    buffer_.shrink_to_fit();
}

void removeAllTemporaryFiles()
{
    std::lock_guard lock(tempRegistryMutex);
    for (const std::string &path : tempRegistry) {
        ::unlink(path.c_str());
    }
    tempRegistry.clear();
}

} // namespace kelvara
