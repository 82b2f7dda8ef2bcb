// Where kelvara-local keeps assets: one folder per account under the data
// folder. Uploads go to a hidden temporary file in the account folder and are
// renamed into place only once complete, so a stored asset is never partial.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kelvara {

// Makes a client-supplied file name safe to store: keeps only the last path
// component ('/' and '\' both separate), drops control characters, replaces
// malformed UTF-8, never yields "", "." or ".." or a hidden name, and keeps
// the result short enough for any Linux file system.
std::string safeFileName(std::string_view sent);

// "name.ext" -> "name (n).ext" for n >= 2; n <= 1 returns the name unchanged.
std::string numberedName(const std::string &name, int n);

struct StoredAsset
{
    std::string name;
    std::int64_t size = 0;
    std::int64_t modified = 0; // seconds since the epoch
};

class AccountStore
{
public:
    AccountStore(std::string folder, std::int64_t quota);
    AccountStore(const AccountStore &) = delete;
    AccountStore &operator=(const AccountStore &) = delete;

    // Creates the folder and removes temporary files left by an earlier run.
    bool prepare(std::string &error);

    const std::string &folder() const { return folder_; }
    std::int64_t quota() const { return quota_; }

    // Stored assets sorted by name.
    std::vector<StoredAsset> list() const;
    // quota - stored - bytes of uploads in progress, or -1 when unlimited.
    std::int64_t available();

    // Claims room for bytes of an upload in progress; false when that would
    // pass the quota.
    bool reserve(std::int64_t bytes);
    void release(std::int64_t bytes);

    // Moves a finished temporary file to a free name derived from wanted and
    // converts its reservation into stored bytes. Returns the final name.
    std::optional<std::string> commit(const std::string &tempPath, const std::string &wanted,
                                      std::int64_t size, std::string &error);

    static constexpr std::string_view tempPrefix = ".upload-";

private:
    std::int64_t scanStoredBytes() const;

    const std::string folder_;
    const std::int64_t quota_;
    std::mutex mutex_;
    std::int64_t stored_ = 0;
    std::int64_t reserved_ = 0;
};

// One upload being written. Whatever happens, the destructor leaves no
// temporary file behind and gives back the quota it had claimed unless the
// upload was committed.
class Upload
{
public:
    enum class WriteResult
    {
        Ok,
        OverQuota,
        DiskFull,
        IoError
    };

    explicit Upload(AccountStore &store);
    ~Upload();
    Upload(const Upload &) = delete;
    Upload &operator=(const Upload &) = delete;

    bool open(std::string &error);
    WriteResult write(const char *data, std::size_t size);
    std::int64_t size() const { return size_; }
    // Flushes, syncs and stores the file; returns the final asset name.
    std::optional<std::string> commit(const std::string &wanted, std::string &error,
                                      bool &diskFull);
    // Drops the partial file now (also done by the destructor).
    void abort();

private:
    WriteResult flush();

    AccountStore &store_;
    std::string tempPath_;
    int fd_ = -1;
    std::vector<char> buffer_;
    std::size_t buffered_ = 0;
    std::int64_t size_ = 0;
    std::int64_t reserved_ = 0;
    bool committed_ = false;
};

// Temporary files of uploads in progress, so a forced shutdown can remove
// them.
void removeAllTemporaryFiles();

} // namespace kelvara
