#include <nx/stream/CConnectPlan.h>

#include <charconv>
#include <memory>
#include <string_view>
#include <system_error>
#include <utility>

namespace {

bool AreInRange(const CNxConnectorOptions& options) {
    const CNxTimeValue zero;
    return options.timeout >= zero && options.timeout <= CNxConnectorOptions::LongestTime() &&
           options.firstDelay > zero && options.maxDelay >= options.firstDelay &&
           options.maxDelay <= CNxConnectorOptions::LongestTime() && options.jitter >= 0 &&
           options.jitter <= 1;
}

// "host:port"; the resolver looks closer at the host.
bool SplitTarget(std::string_view target, std::string_view& host, unsigned short& port) {
    const size_t colon = target.rfind(':');
    if (colon == std::string_view::npos || colon == 0) {
        return false;
    }
    host = target.substr(0, colon);
    const char* const end = target.data() + target.size();
    const auto parsed = std::from_chars(target.data() + colon + 1, end, port);
    return parsed.ec == std::errc() && parsed.ptr == end && port != 0 &&
           host.find_first_of(":[]/%*") == std::string_view::npos;
}

bool CanConnectTo(const CNxEndpoint& endpoint) {
    return endpoint.GetFamily() == AF_UNIX ? !endpoint.GetUnixName().empty()
                                           : endpoint.GetPort() != 0 && !endpoint.IsDual();
}

}  // namespace

bool CConnectPlan::Complete() {
    if (!AreInRange(options) || !ParseTarget()) {
        return false;
    }
    CompleteOptions();
    return true;
}

bool CConnectPlan::ParseTarget() {
    if (endpoint.Set(target.c_str()) == NX_OK) {
        return CanConnectTo(endpoint);
    }
    std::string_view name;
    if (!SplitTarget(target, name, port)) {
        return false;
    }
    host = CNxString(std::string(name).c_str());
    return true;
}

void CConnectPlan::CompleteOptions() {
    if (options.connection == nullptr) {
        options.connection = std::make_shared<const CNxConnectionOptions>();
    }
    const CNxConnectionOptions& given = *options.connection;
    if (given.tls && given.tlsName.empty() && endpoint.GetFamily() != AF_UNIX) {
        auto named = std::make_shared<CNxConnectionOptions>(given);
        named->tlsName = host.empty() ? endpoint.GetHost() : host.GetRawData();
        options.connection = std::move(named);
    }
}
