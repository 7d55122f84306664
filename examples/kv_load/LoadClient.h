// A whole run: the connections, the clock that watches them, and what they achieved.
#pragma once

#include <kv_load/Connection.h>
#include <kv_load/ProgressPrinter.h>
#include <nx/timer/CNxTimedCall.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kv_load {

struct Options {
    // A name, or an IPv4 or IPv6 address.
    std::string host = "127.0.0.1";
    std::uint64_t port = 0;
    std::uint64_t connections = 50;
    // Requests that a connection has under way.
    std::uint64_t pipeline = 16;
    // Bytes.
    std::uint64_t valueSize = 32;
    // Of all connections together.
    std::uint64_t requests = 100000;
    std::uint64_t keys = 10000;
    // Seconds.
    std::uint64_t connectTimeout = 10;
    std::uint64_t stallTimeout = 30;
    bool isTls = false;
    // Whom to trust; "" for what the system trusts.
    std::string caFile;
};

// Opens all connections first, a limited number at a time, and has them begin together once none
// is left to wait for. What is to be asked is not dealt out beforehand: a connection takes as much
// as it can, so that a slow or lost one does not hold up the end.
//
// Made and destroyed on the main thread; Start, Close and all callbacks are the reactor's thread's.
class LoadClient : private IConnectionOwner {
public:
    // `onEnd` is called when no connection has anything left to do. May throw std::bad_alloc.
    // `tls` is null for none.
    LoadClient(const Options& options, CNxAutoPtr<CNxTlsContext> tls, INxReactor& reactor,
               std::function<void()> onEnd);
    LoadClient(const LoadClient&) = delete;
    LoadClient& operator=(const LoadClient&) = delete;

    // False without memory.
    [[nodiscard]] bool Start();

    // Ends the run where it stands. To be called also after `onEnd`.
    void Close();

    // Once closed, any thread.
    const LoadProgress& GetProgress() const { return m_progress; }

private:
    void OnConnected() override;
    void OnDone() override;
    void OnFailed(const Connection& connection, bool wasConnected, const std::string& why) override;

    void OnTick();
    void OpenMore();
    void StartLoad();
    void EndIfNobodyIsLeft();

    const Options m_options;
    INxReactor& m_reactor;
    const std::function<void()> m_onEnd;
    CNxTimedCall m_tick;
    LoadProgress m_progress;
    ProgressPrinter m_printer;
    const ConnectionSetup m_setup;
    std::vector<std::unique_ptr<Connection>> m_connections;

    bool m_started = false;
    // Guards OpenMore against itself: a connect may fail at once.
    bool m_opening = false;
    // How many were told to open; of these, how many have still to connect or fail, and how many
    // are connected and neither done nor failed.
    std::size_t m_opened = 0;
    std::size_t m_connecting = 0;
    std::size_t m_connected = 0;
};

}  // namespace kv_load
