#include <http_server/RequestReader.h>
#include <strings.h>

#include <cassert>
#include <string_view>

namespace http_server {

namespace {

struct Header {
    const char* name;
    std::string Request::*value;
};

constexpr Header c_headers[] = {
    {"host", &Request::host},
    {"range", &Request::range},
    {"if-range", &Request::ifRange},
    {"if-none-match", &Request::ifNoneMatch},
    {"if-modified-since", &Request::ifModifiedSince},
};

// For the tables of llhttp.
template <auto Member>
int Call(llhttp_t* parser) {
    return (static_cast<RequestReader*>(parser->data)->*Member)();
}
template <auto Member>
int CallWith(llhttp_t* parser, const char* at, std::size_t size) {
    return (static_cast<RequestReader*>(parser->data)->*Member)(at, size);
}

}  // namespace

llhttp_settings_t RequestReader::MakeSettings() {
    llhttp_settings_t settings;
    llhttp_settings_init(&settings);
    settings.on_message_begin = Call<&RequestReader::Begin>;
    settings.on_url = CallWith<&RequestReader::OnUrl>;
    settings.on_header_field = CallWith<&RequestReader::OnName>;
    settings.on_header_field_complete = Call<&RequestReader::OnNameEnd>;
    settings.on_header_value = CallWith<&RequestReader::OnValue>;
    settings.on_headers_complete = Call<&RequestReader::OnHeaders>;
    settings.on_body = CallWith<&RequestReader::OnBody>;
    settings.on_message_complete = Call<&RequestReader::OnEnd>;
    return settings;
}

RequestReader::RequestReader() {
    static const llhttp_settings_t s_settings = MakeSettings();
    llhttp_init(&m_parser, HTTP_REQUEST, &s_settings);
    m_parser.data = this;
}

RequestReader::EResult RequestReader::Read(CNxMessageChain& received) {
    while (!received.IsEmpty()) {
        const std::string_view front = received.GetFront();
        const llhttp_errno_t error = llhttp_execute(&m_parser, front.data(), front.size());
        if (error == HPE_OK) {
            received.Consume(front.size());
            continue;
        }
        if (error != HPE_PAUSED) {
            m_status = m_status != 0 ? m_status : StatusOf(error);
            return EResult::BAD;
        }
        const auto used = static_cast<std::size_t>(llhttp_get_error_pos(&m_parser) - front.data());
        assert(used <= front.size());
        received.Consume(used);
        llhttp_resume(&m_parser);
        return EResult::REQUEST;
    }
    return EResult::PARTIAL;
}

// The strings keep their memory.
int RequestReader::Begin() {
    m_isInside = true;
    m_request.isHead = m_request.keepsAlive = m_request.isOldVersion = false;
    m_request.target.clear();
    for (const Header& header : c_headers) {
        (m_request.*header.value).clear();
    }
    m_name.clear();
    m_headerSize = m_bodySize = 0;
    m_hosts = 0;
    return 0;
}

int RequestReader::OnUrl(const char* at, std::size_t size) {
    m_request.target.append(at, size);
    return m_request.target.size() > c_mostTarget ? Refuse(414) : Count(size);
}

int RequestReader::OnName(const char* at, std::size_t size) {
    m_name.append(at, size);
    return Count(size);
}

int RequestReader::OnNameEnd() {
    m_value = nullptr;
    for (const Header& header : c_headers) {
        if (strcasecmp(header.name, m_name.c_str()) == 0) {
            m_value = &(m_request.*header.value);
            m_hosts += m_value == &m_request.host ? 1 : 0;
        }
    }
    // Several of one name are a list (RFC 9110, section 5.3).
    if (m_value != nullptr && !m_value->empty()) {
        m_value->append(", ");
    }
    m_name.clear();
    return 0;
}

int RequestReader::OnValue(const char* at, std::size_t size) {
    if (m_value != nullptr) {
        m_value->append(at, size);
    }
    return Count(size);
}

int RequestReader::OnHeaders() {
    const bool isGet = m_parser.method == HTTP_GET;
    m_request.isHead = m_parser.method == HTTP_HEAD;
    m_request.isOldVersion = m_parser.http_minor == 0;
    m_request.keepsAlive = llhttp_should_keep_alive(&m_parser) != 0;
    // No other protocol is spoken, which is for the server to decide.
    m_parser.upgrade = 0;
    if (m_parser.http_major != 1) {
        return Refuse(505);
    }
    if (m_hosts > 1 || (m_hosts == 0 && !m_request.isOldVersion)) {
        return Refuse(400);
    }
    if (!isGet && !m_request.isHead) {
        return Refuse(405);
    }
    return m_parser.content_length > c_mostBody ? Refuse(413) : 0;
}

int RequestReader::OnBody(const char* /*at*/, std::size_t size) {
    m_bodySize += size;
    return m_bodySize > c_mostBody ? Refuse(413) : 0;
}

// Read returns here.
int RequestReader::OnEnd() {
    m_isInside = false;
    return HPE_PAUSED;
}

int RequestReader::Count(std::size_t size) {
    m_headerSize += size;
    return m_headerSize > c_mostHeader ? Refuse(431) : 0;
}

int RequestReader::Refuse(int status) {
    m_status = status;
    return -1;
}

int RequestReader::StatusOf(llhttp_errno_t error) {
    return error == HPE_INVALID_VERSION || error == HPE_PAUSED_H2_UPGRADE ? 505 : 400;
}

}  // namespace http_server
