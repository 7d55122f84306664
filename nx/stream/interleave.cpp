#include <nx/stream/interleave.h>

#include <algorithm>
#include <cassert>

std::vector<CNxEndpoint> Interleave(const std::vector<CNxInetAddr>& addresses,
                                    unsigned short port) {
    assert(!addresses.empty());
    std::vector<CNxEndpoint> endpoints;
    endpoints.reserve(addresses.size());
    const int firstFamily = addresses.front().GetType();
    auto first = addresses.begin();
    auto other = addresses.begin();
    const auto takeNext = [&](auto& at, bool isFirst) {
        at = std::find_if(at, addresses.end(), [&](const CNxInetAddr& address) {
            return (address.GetType() == firstFamily) == isFirst;
        });
        if (at != addresses.end()) {
            endpoints.emplace_back(*at++).SetPort(port);
        }
    };
    while (endpoints.size() < addresses.size()) {
        takeNext(first, true);
        takeNext(other, false);
    }
    return endpoints;
}
