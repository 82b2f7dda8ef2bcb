// Streaming parser for multipart/form-data request bodies.
//
// Uploads can be many gigabytes, so the parser never holds more than one
// header line or one delimiter's worth of body bytes: part data is handed to
// the caller as it arrives. Memory use is bounded whatever the input.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace kelvara {

struct PartHeaders
{
    std::string name;                    // form field name
    std::optional<std::string> filename; // as sent, not made safe yet
    std::string contentType;
};

class MultipartHandler
{
public:
    virtual ~MultipartHandler() = default;
    // Each returns false to stop parsing (the parser then reports Aborted).
    virtual bool partBegin(const PartHeaders &headers) = 0;
    virtual bool partData(const char *data, std::size_t size) = 0;
    virtual bool partEnd() = 0;
};

// Extracts the boundary parameter of a multipart/form-data Content-Type
// value. Returns nothing when the type is not multipart/form-data or the
// boundary is missing, empty, longer than 200 bytes or contains CR/LF.
std::optional<std::string> multipartBoundary(std::string_view contentType);

// Parses a Content-Disposition value of a form-data part. The filename is
// taken as sent: some clients put the file name between the quotes without
// escaping, so a filename may itself contain double quotes.
std::optional<PartHeaders> parseContentDisposition(std::string_view value);

class MultipartParser
{
public:
    enum class Status
    {
        Ok,
        Malformed,
        Aborted
    };

    static constexpr std::size_t maxHeaderLine = 8192;
    static constexpr std::size_t maxHeaderBlock = 65536;

    MultipartParser(std::string boundary, MultipartHandler &handler);

    // Feeds the next piece of the body. Returns false once parsing has
    // failed; status() and error() then tell why.
    bool feed(const char *data, std::size_t size);
    // Call at the end of the body: false if the closing delimiter was never
    // reached (a truncated or otherwise incomplete body).
    bool finish();

    Status status() const { return status_; }
    const std::string &error() const { return error_; }
    bool complete() const { return state_ == State::Epilogue; }
    // Bytes currently held back; stays below a small bound.
    std::size_t buffered() const { return buffer_.size(); }

private:
    enum class State
    {
        Preamble,
        AfterDelimiter,
        Headers,
        Body,
        Epilogue
    };

    bool fail(Status status, std::string message);
    bool parseHeaderLine(std::string_view line);
    bool process();

    std::string delimiter_; // CRLF "--" boundary
    MultipartHandler &handler_;
    std::string buffer_;
    State state_ = State::Preamble;
    Status status_ = Status::Ok;
    std::string error_;
    PartHeaders part_;
    bool sawDisposition_ = false;
    std::size_t headerBytes_ = 0;
    std::size_t paddingBytes_ = 0;
};

} // namespace kelvara
