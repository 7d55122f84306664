// Inside the library only: name servers that are asked together, through c-ares
// (https://c-ares.org/docs.html).
#pragma once

#include <ares.h>

#include <optional>
#include <vector>

#include <nx/foundation/NxResult.h>
#include <nx/resolve/CDnsLookup.h>

// Belongs to one thread. Its user watches the sockets, and tells it when they are ready and when
// time is up.
class CDnsChannel {
public:
    // None of them may use the channel.
    class IUser {
    public:
        // Watches the socket. False when it cannot: then its server is passed over.
        [[nodiscard]] virtual bool OnSocketOpened(CDnsChannel& channel, int fd) = 0;
        // It is about to be closed. Also for sockets that were not opened.
        virtual void OnSocketClosing(int fd) = 0;
        // The look-up is complete. Asked again after `timeouts` times without an answer.
        virtual void OnLookupEnd(CDnsChannel& channel, CDnsLookup& lookup, int timeouts) = 0;

    protected:
        ~IUser() = default;
    };

    explicit CDnsChannel(IUser& user) : m_user(user) {}
    CDnsChannel(const CDnsChannel&) = delete;
    CDnsChannel& operator=(const CDnsChannel&) = delete;

    // Ends the look-ups that are under way with NX_ERROR_FAILURE.
    ~CDnsChannel();

    // Once, before the rest. The servers of the settings or, without any, of resolv.conf(5);
    // number `first` of them is asked first. NX_OK, or NX_ERROR_FAILURE without memory.
    [[nodiscard]] NxResult Open(const CDnsSettings& settings, size_t first);

    size_t CountServers() const { return m_servers; }

    // May end the look-up before it returns.
    void Start(CDnsLookup& lookup);

    // The socket has input, or room for output. Reads until it would block.
    void OnReady(int fd, bool isInput);

    // The socket has failed, why says an errno.
    void OnFailed(int fd, int error);

    void OnTimeout();

    // In how many microseconds OnTimeout is to be called; nothing when it need not be.
    std::optional<long> GetTimeout() const;

    // How many look-ups are under way.
    size_t CountLookups() const { return m_lookups; }

private:
    using Nodes = std::vector<ares_addr_port_node>;

    static const ares_socket_functions s_socketFunctions;
    static ares_socket_t Socket(int family, int type, int protocol, void* self);
    static int Close(ares_socket_t fd, void* self);
    static int Connect(ares_socket_t fd, const sockaddr* to, ares_socklen_t size, void* self);
    static ares_ssize_t Receive(ares_socket_t fd, void* buffer, size_t size, int flags,
                                sockaddr* from, ares_socklen_t* fromSize, void* self);
    static ares_ssize_t Send(ares_socket_t fd, const iovec* data, int count, void* self);
    static void OnAnswer(void* lookup, int status, int timeouts, ares_addrinfo* found);
    [[nodiscard]] static bool GetServers(ares_channel channel, Nodes& nodes);
    [[nodiscard]] bool SetServers(const CDnsSettings& settings, size_t first);

    IUser& m_user;
    ares_channel m_channel = nullptr;
    size_t m_servers = 0;
    size_t m_lookups = 0;
    // What the next read is to fail with.
    int m_error = 0;
    // The last read has taken something.
    bool m_hasRead = false;
};
