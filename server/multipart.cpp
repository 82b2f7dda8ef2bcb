#include "multipart.h"

#include "text.h"

#include <algorithm>

namespace kelvara {

namespace {

constexpr std::string_view crlf = "\r\n";

bool isToken(char c)
{
    return c > 0x20 && c < 0x7F &&
           std::string_view("()<>@,;:\\\"/[]?={}").find(c) == std::string_view::npos;
}

// Splits "key=value; key2=value2" parameters after the first ';'. Used for
// the Content-Type boundary, where values are tokens or quoted strings.
std::optional<std::string> parameter(std::string_view params, std::string_view key)
{
    std::size_t pos = 0;
    while (pos < params.size()) {
        const std::size_t semi = params.find(';', pos);
        if (semi == std::string_view::npos) {
            return std::nullopt;
        }
        std::size_t i = semi + 1;
        while (i < params.size() && (params[i] == ' ' || params[i] == '\t')) {
            ++i;
        }
        std::size_t nameEnd = i;
        while (nameEnd < params.size() && isToken(params[nameEnd])) {
            ++nameEnd;
        }
        std::size_t eq = nameEnd;
        while (eq < params.size() && (params[eq] == ' ' || params[eq] == '\t')) {
            ++eq;
        }
        if (eq >= params.size() || params[eq] != '=') {
            pos = semi + 1;
            continue;
        }
        std::size_t v = eq + 1;
        while (v < params.size() && (params[v] == ' ' || params[v] == '\t')) {
            ++v;
        }
        std::string value;
        std::size_t end = v;
        if (v < params.size() && params[v] == '"') {
            end = v + 1;
            while (end < params.size() && params[end] != '"') {
                if (params[end] == '\\' && end + 1 < params.size()) {
                    ++end;
                }
                value += params[end];
                ++end;
            }
            if (end >= params.size()) {
                return std::nullopt; // unterminated quoted string
            }
            ++end;
        } else {
            while (end < params.size() && params[end] != ';' && params[end] != ' ' &&
                   params[end] != '\t') {
                value += params[end];
                ++end;
            }
        }
        if (equalsIgnoreCase(params.substr(i, nameEnd - i), key)) {
            return value;
        }
        pos = end;
    }
    return std::nullopt;
}

} // namespace

std::optional<std::string> multipartBoundary(std::string_view contentType)
{
    contentType = trim(contentType);
    const std::size_t semi = contentType.find(';');
    const std::string_view type = trim(contentType.substr(0, semi));
    if (!equalsIgnoreCase(type, "multipart/form-data") || semi == std::string_view::npos) {
        return std::nullopt;
    }
    auto boundary = parameter(contentType.substr(semi), "boundary");
    if (!boundary || boundary->empty() || boundary->size() > 200 ||
        boundary->find_first_of("\r\n") != std::string::npos) {
        return std::nullopt;
    }
    return boundary;
}

std::optional<PartHeaders> parseContentDisposition(std::string_view value)
{
    value = trim(value);
    const std::size_t semi = value.find(';');
    if (!equalsIgnoreCase(trim(value.substr(0, semi)), "form-data")) {
        return std::nullopt;
    }
    PartHeaders part;
    bool haveName = false;
    std::size_t pos = semi;
    while (pos != std::string_view::npos && pos < value.size()) {
        std::size_t i = pos + 1; // just after ';'
        while (i < value.size() && (value[i] == ' ' || value[i] == '\t')) {
            ++i;
        }
        std::size_t nameEnd = i;
        while (nameEnd < value.size() && isToken(value[nameEnd])) {
            ++nameEnd;
        }
        const std::string_view key = value.substr(i, nameEnd - i);
        std::size_t v = nameEnd;
        while (v < value.size() && (value[v] == ' ' || value[v] == '\t')) {
            ++v;
        }
        if (key.empty() || v >= value.size() || value[v] != '=') {
            return std::nullopt;
        }
        ++v;
        while (v < value.size() && (value[v] == ' ' || value[v] == '\t')) {
            ++v;
        }
        std::string text;
        std::size_t next = std::string_view::npos;
        if (v < value.size() && value[v] == '"') {
            // The closing quote is the first quote that ends the header or
            // is followed by "; key=". Quotes elsewhere belong to the value,
            // which is how unescaped file names such as a"b.txt survive.
            std::size_t close = std::string_view::npos;
            for (std::size_t q = value.find('"', v + 1); q != std::string_view::npos;
                 q = value.find('"', q + 1)) {
                std::size_t after = q + 1;
                while (after < value.size() && (value[after] == ' ' || value[after] == '\t')) {
                    ++after;
                }
                if (after == value.size()) {
                    close = q;
                    break;
                }
                if (value[after] == ';') {
                    std::size_t k = after + 1;
                    while (k < value.size() && (value[k] == ' ' || value[k] == '\t')) {
                        ++k;
                    }
                    std::size_t ke = k;
                    while (ke < value.size() && isToken(value[ke])) {
                        ++ke;
                    }
                    while (ke < value.size() && (value[ke] == ' ' || value[ke] == '\t')) {
                        ++ke;
                    }
                    if (ke > k && ke < value.size() && value[ke] == '=') {
                        close = q;
                        next = after;
                        break;
                    }
                }
            }
            if (close == std::string_view::npos) {
                return std::nullopt;
            }
            text = std::string(value.substr(v + 1, close - v - 1));
        } else {
            std::size_t end = v;
            while (end < value.size() && value[end] != ';') {
                ++end;
            }
            text = std::string(trim(value.substr(v, end - v)));
            next = end < value.size() ? end : std::string_view::npos;
        }
        if (equalsIgnoreCase(key, "name")) {
            part.name = std::move(text);
            haveName = true;
        } else if (equalsIgnoreCase(key, "filename")) {
            part.filename = std::move(text);
        }
        pos = next;
    }
    if (!haveName) {
        return std::nullopt;
    }
    return part;
}

MultipartParser::MultipartParser(std::string boundary, MultipartHandler &handler)
    : delimiter_("\r\n--" + boundary), handler_(handler)
{
    // The first delimiter may open the body without a preceding line break;
    // starting with one lets a single search handle both cases.
    buffer_ = crlf;
}

bool MultipartParser::fail(Status status, std::string message)
{
    status_ = status;
    error_ = std::move(message);
    buffer_.clear();
    buffer_.shrink_to_fit();
    return false;
}

bool MultipartParser::feed(const char *data, std::size_t size)
{
    if (status_ != Status::Ok) {
        return false;
    }
    if (state_ == State::Epilogue) {
        return true; // anything after the closing delimiter is ignored
    }
    buffer_.append(data, size);
    return process();
}

bool MultipartParser::finish()
{
    if (status_ != Status::Ok) {
        return false;
    }
    if (state_ != State::Epilogue) {
        return fail(Status::Malformed, state_ == State::Preamble
                                           ? "no multipart delimiter found in the body"
                                           : "body ends before the closing multipart delimiter");
    }
    return true;
}

bool MultipartParser::parseHeaderLine(std::string_view line)
{
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos || colon == 0) {
        return fail(Status::Malformed, "malformed part header line");
    }
    const std::string_view name = trim(line.substr(0, colon));
    const std::string_view value = trim(line.substr(colon + 1));
    if (equalsIgnoreCase(name, "Content-Disposition")) {
        auto parsed = parseContentDisposition(value);
        if (!parsed) {
            return fail(Status::Malformed, "malformed Content-Disposition of a part");
        }
        part_.name = std::move(parsed->name);
        part_.filename = std::move(parsed->filename);
        sawDisposition_ = true;
    } else if (equalsIgnoreCase(name, "Content-Type")) {
        part_.contentType = std::string(value);
    }
    return true;
}

bool MultipartParser::process()
{
    const std::size_t keep = delimiter_.size() - 1;
    std::size_t pos = 0; // consumed bytes of buffer_
    for (;;) {
        const std::string_view rest = std::string_view(buffer_).substr(pos);
        if (state_ == State::Preamble || state_ == State::Body) {
            const std::size_t found = rest.find(delimiter_);
            const std::size_t usable = found != std::string_view::npos
                                           ? found
                                           : (rest.size() > keep ? rest.size() - keep : 0);
            if (state_ == State::Body && usable > 0 && !handler_.partData(rest.data(), usable)) {
                return fail(Status::Aborted, "upload stopped by the server");
            }
            pos += usable;
            if (found == std::string_view::npos) {
                break;
            }
            if (state_ == State::Body && !handler_.partEnd()) {
                return fail(Status::Aborted, "upload stopped by the server");
            }
            pos += delimiter_.size();
            state_ = State::AfterDelimiter;
            paddingBytes_ = 0;
        } else if (state_ == State::AfterDelimiter) {
            // Either "--" (closing delimiter) or optional blanks then CRLF.
            if (rest.size() < 2) {
                if (!rest.empty() &&
                    std::string_view("- \t\r").find(rest[0]) == std::string_view::npos) {
                    return fail(Status::Malformed, "junk after a multipart delimiter");
                }
                break;
            }
            if (rest.substr(0, 2) == "--") {
                pos += 2;
                state_ = State::Epilogue;
            } else if (rest[0] == ' ' || rest[0] == '\t') {
                if (++paddingBytes_ > 64) {
                    return fail(Status::Malformed, "junk after a multipart delimiter");
                }
                pos += 1;
            } else if (rest.substr(0, 2) == crlf) {
                pos += 2;
                state_ = State::Headers;
                part_ = PartHeaders{};
                sawDisposition_ = false;
                headerBytes_ = 0;
            } else {
                return fail(Status::Malformed, "junk after a multipart delimiter");
            }
        } else if (state_ == State::Headers) {
            const std::size_t eol = rest.find(crlf);
            if (eol == std::string_view::npos) {
                if (rest.size() > maxHeaderLine) {
                    return fail(Status::Malformed, "part header line too long");
                }
                break;
            }
            if (eol > maxHeaderLine) {
                return fail(Status::Malformed, "part header line too long");
            }
            headerBytes_ += eol + 2;
            if (headerBytes_ > maxHeaderBlock) {
                return fail(Status::Malformed, "part headers too long");
            }
            const std::string_view line = rest.substr(0, eol);
            pos += eol + 2;
            if (line.empty()) {
                if (!sawDisposition_) {
                    return fail(Status::Malformed, "part without Content-Disposition");
                }
                if (!handler_.partBegin(part_)) {
                    return fail(Status::Aborted, "upload stopped by the server");
                }
                state_ = State::Body;
            } else if (!parseHeaderLine(line)) {
                return false;
            }
        } else { // Epilogue
            pos = buffer_.size();
            break;
        }
    }
    buffer_.erase(0, pos);
    return true;
}

} // namespace kelvara
