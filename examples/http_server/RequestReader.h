// Reads requests from the bytes of a connection, by llhttp.
#pragma once

#include <llhttp.h>
#include <nx/buffer/CNxMessageChain.h>

#include <cstddef>
#include <string>

namespace http_server {

// What counts of a request; "" for a header that was not there.
struct Request {
    bool isHead = false;
    bool isOldVersion = false;  // HTTP/1.0
    bool keepsAlive = false;
    std::string target;
    std::string host;
    std::string range;
    std::string ifRange;
    std::string ifNoneMatch;
    std::string ifModifiedSince;
};

class RequestReader {
public:
    // Of a request without its body, and of the body, which is thrown away.
    static constexpr std::size_t c_mostHeader = 16384;
    static constexpr std::size_t c_mostTarget = 8192;
    static constexpr std::size_t c_mostBody = 65536;

    enum class EResult { PARTIAL, REQUEST, BAD };

    RequestReader();
    RequestReader(const RequestReader&) = delete;
    RequestReader& operator=(const RequestReader&) = delete;

    // Takes the next request off the front. PARTIAL: more has to come, and all was taken. BAD:
    // nothing can be read any more; GetStatus() is what to answer.
    [[nodiscard]] EResult Read(CNxMessageChain& received);

    // The last one that was read; what is known of it after BAD.
    const Request& GetRequest() const { return m_request; }
    int GetStatus() const { return m_status; }

    // One has begun and is not complete.
    bool IsInside() const { return m_isInside; }

private:
    static llhttp_settings_t MakeSettings();

    int Begin();
    int OnUrl(const char* at, std::size_t size);
    int OnName(const char* at, std::size_t size);
    int OnNameEnd();
    int OnValue(const char* at, std::size_t size);
    int OnHeaders();
    int OnBody(const char* at, std::size_t size);
    int OnEnd();
    int Refuse(int status);
    int Count(std::size_t size);
    static int StatusOf(llhttp_errno_t error);

    llhttp_t m_parser{};
    Request m_request;
    std::string m_name;
    std::string* m_value = nullptr;  // of m_request; null for a header that does not count
    std::size_t m_headerSize = 0;
    std::size_t m_bodySize = 0;
    unsigned m_hosts = 0;
    bool m_isInside = false;
    int m_status = 0;
};

}  // namespace http_server
