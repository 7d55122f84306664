#include <http_server/HttpDate.h>
#include <http_server/Session.h>
#include <nx/event/NxCall.h>
#include <nx/reactor/INxReactor.h>

#include <algorithm>
#include <cassert>
#include <charconv>
#include <cstdio>
#include <iterator>
#include <utility>

namespace http_server {

namespace {

struct Status {
    int code;
    const char* text;
};

constexpr Status c_statuses[] = {
    {200, "200 OK"},
    {206, "206 Partial Content"},
    {301, "301 Moved Permanently"},
    {304, "304 Not Modified"},
    {400, "400 Bad Request"},
    {404, "404 Not Found"},
    {405, "405 Method Not Allowed"},
    {408, "408 Request Timeout"},
    {413, "413 Content Too Large"},
    {414, "414 URI Too Long"},
    {416, "416 Range Not Satisfiable"},
    {431, "431 Request Header Fields Too Large"},
    {503, "503 Service Unavailable"},
    {505, "505 HTTP Version Not Supported"},
};

const char* GetStatusText(int code) {
    const auto* const found =
        std::find_if(std::begin(c_statuses), std::end(c_statuses),
                     [=](const Status& status) { return status.code == code; });
    assert(found != std::end(c_statuses));
    return found->text;
}

// Answers in a row before other clients have their turn.
constexpr unsigned c_mostAtOnce = 64;

std::string MakeTag(const File& file) {
    char text[64];
    std::snprintf(text, sizeof(text), "\"%llx-%llx.%lx\"",
                  static_cast<unsigned long long>(file.size),
                  static_cast<unsigned long long>(file.changed.tv_sec), file.changed.tv_nsec);
    return text;
}

// Weak comparison (RFC 9110, section 8.8.3.2): a "W/" before one of the list counts for nothing.
bool HasTag(const std::string& list, const std::string& tag) {
    return list == "*" || list.find(tag) != std::string::npos;
}

// Takes digits off the front. False when there are none, or too many.
bool TakeNumber(std::string_view& text, std::uint64_t& value) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc()) {
        return false;
    }
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    return true;
}

}  // namespace

void Session::OnReceive(CNxConnection& connection, CNxMessageChain& received) {
    for (unsigned answers = 0; connection.GetState() == CNxConnection::EState::OPEN; ++answers) {
        if (answers == c_mostAtOnce) {
            RestLater(connection);
            return;
        }
        switch (m_reader.Read(received)) {
            case RequestReader::EResult::PARTIAL:
                WaitForRest(connection);
                return;
            case RequestReader::EResult::BAD:
                EndBadly(connection, m_reader.GetStatus());
                return;
            case RequestReader::EResult::REQUEST:
                m_timeout.Cancel();
                Answer(connection);
                break;
        }
    }
}

// When what is sent in this turn has left; or at low water, if it does not all leave.
void Session::RestLater(CNxConnection& connection) {
    connection.PauseReading();
    const CNxAutoPtr<CNxConnection> kept(&connection);
    Check(connection, NxPostCall(connection.GetReactor(), [kept] {
              if (kept->GetUnsent() <= c_highWater) {
                  kept->ResumeReading();
              }
          }));
}

// A client must not take for ever over one request.
void Session::WaitForRest(CNxConnection& connection) {
    if (m_reader.IsInside() && !m_timeout.IsPending()) {
        Check(connection, m_timeout.RunAfter(connection.GetReactor(), c_requestTimeout,
                                             [this, &connection] { EndBadly(connection, 408); }));
    }
}

// Half an answer would be taken for another.
void Session::Check(CNxConnection& connection, NxResult result) {
    if (result != NX_OK) {
        connection.CloseNow();
    }
}

void Session::Answer(CNxConnection& connection) {
    File file;
    m_isLast = !m_reader.GetRequest().keepsAlive;
    if (!ReadTarget(m_reader.GetRequest().target, m_path)) {
        SendError(connection, 400);
    } else {
        switch (m_files.Find(m_path, file)) {
            case Files::EFound::FILE:
                SendFile(connection, file, GetContentType(m_path));
                break;
            case Files::EFound::FOLDER:
                // So that relative links are right.
                SendError(connection, 301, "Location: /" + EncodePath(m_path) + "/\r\n");
                break;
            case Files::EFound::NOTHING:
                SendError(connection, 404);
                break;
            case Files::EFound::NO_DESCRIPTOR:
                SendError(connection, 503);
                break;
        }
    }
    if (m_isLast) {
        connection.CloseWhenSent();
    }
}

void Session::SendFile(CNxConnection& connection, File& file, std::string_view type) {
    const std::string tag = MakeTag(file);
    Part part{0, file.size};
    const bool isUnchanged = IsUnchanged(file, tag);
    const ERange range = isUnchanged ? ERange::NONE : FindRange(file, tag, part);
    const std::string ofSize = "/" + std::to_string(file.size);
    if (range == ERange::UNSATISFIABLE) {
        SendError(connection, 416, "Content-Range: bytes *" + ofSize + "\r\n");
        return;
    }
    BeginHead(isUnchanged ? 304 : range == ERange::PART ? 206 : 200);
    AddHeader("Last-Modified", MakeHttpDate(file.changed.tv_sec));
    AddHeader("ETag", tag);
    if (!isUnchanged) {
        AddHeader("Accept-Ranges", "bytes");
        AddHeader("Content-Type", type);
        AddHeader("Content-Length", std::to_string(part.size));
    }
    if (range == ERange::PART) {
        AddHeader("Content-Range", "bytes " + std::to_string(part.offset) + "-" +
                                       std::to_string(part.offset + part.size - 1) + ofSize);
    }
    EndHead(connection);
    if (!isUnchanged && !m_reader.GetRequest().isHead) {
        Check(connection, connection.SendFile(std::move(file.descriptor), part.offset, part.size));
    }
}

void Session::SendError(CNxConnection& connection, int status, std::string_view header) {
    const std::string text = std::string(GetStatusText(status)) + "\n";
    BeginHead(status);
    m_head += header;
    AddHeader("Content-Type", "text/plain; charset=utf-8");
    AddHeader("Content-Length", std::to_string(text.size()));
    EndHead(connection);
    if (!m_reader.GetRequest().isHead) {
        Check(connection, connection.Send(text));
    }
}

void Session::EndBadly(CNxConnection& connection, int status) {
    m_isLast = true;
    SendError(connection, status, status == 405 ? "Allow: GET, HEAD\r\n" : "");
    connection.CloseWhenSent();
}

// If-None-Match counts before If-Modified-Since (RFC 9110, section 13.2.2).
bool Session::IsUnchanged(const File& file, const std::string& tag) const {
    const Request& request = m_reader.GetRequest();
    if (!request.ifNoneMatch.empty()) {
        return HasTag(request.ifNoneMatch, tag);
    }
    if (request.ifModifiedSince.empty()) {
        return false;
    }
    const auto since = ReadHttpDate(request.ifModifiedSince);
    return since && file.changed.tv_sec <= *since;
}

// What is no range of bytes, and several of them, count as none (RFC 9110, section 14.2).
Session::ERange Session::FindRange(const File& file, const std::string& tag, Part& part) const {
    const Request& request = m_reader.GetRequest();
    constexpr std::string_view c_bytes = "bytes=";
    std::string_view text = request.range;
    if (request.isHead || text.substr(0, c_bytes.size()) != c_bytes ||
        (!request.ifRange.empty() && request.ifRange != tag &&
         request.ifRange != MakeHttpDate(file.changed.tv_sec))) {
        return ERange::NONE;
    }
    text.remove_prefix(c_bytes.size());
    std::uint64_t first = 0;
    std::uint64_t last = file.size - 1;
    const bool hasFirst = TakeNumber(text, first);
    if (text.empty() || text.front() != '-') {
        return ERange::NONE;
    }
    text.remove_prefix(1);
    const bool hasLast = TakeNumber(text, last);
    if (!text.empty() || !(hasFirst || hasLast) || (hasFirst && hasLast && last < first)) {
        return ERange::NONE;
    }
    if (!hasFirst) {  // so many from the end
        first = file.size - std::min(last, file.size);
        last = file.size - 1;
    }
    if (first >= file.size) {
        return ERange::UNSATISFIABLE;
    }
    part = {first, std::min(last, file.size - 1) - first + 1};
    return ERange::PART;
}

void Session::BeginHead(int status) {
    m_head = "HTTP/1.1 ";
    m_head += GetStatusText(status);
    m_head += "\r\n";
    AddHeader("Date", GetHttpDateNow());
}

void Session::EndHead(CNxConnection& connection) {
    if (m_isLast) {
        AddHeader("Connection", "close");
    } else if (m_reader.GetRequest().isOldVersion) {
        AddHeader("Connection", "keep-alive");
    }
    m_head += "\r\n";
    Check(connection, connection.Send(m_head));
}

void Session::AddHeader(std::string_view name, std::string_view value) {
    m_head += name;
    m_head += ": ";
    m_head += value;
    m_head += "\r\n";
}

}  // namespace http_server
