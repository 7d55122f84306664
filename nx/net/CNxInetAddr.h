// A socket address: IPv4 or IPv6 with a port, ready for the socket calls, or a host name that is
// still to be resolved.
//
// Where it surprises:
// - A HOST NAME IS NOT RESOLVED AT ONCE: Set asks for it and returns NX_ERROR_WOULD_BLOCK, and a
//   later TryResolve() takes what was found. Who wants to be told, or all addresses, asks the
//   manager itself (nx/resolve/CNxDnsManager.h).
// - That a host name is not resolved is told by the result and by IsResolved() only: type and size
//   stay those of before, the socket address is zeroed.
// - The one-argument text forms split at the first ':'; there an IPv6 address stands in brackets.
// - A text form with an empty host ("", ":80") resolves nothing and returns NX_OK: address and
//   family bytes are zero, the type is the one of before.
#pragma once

#include <netinet/in.h>

#include <nx/foundation/CNxString.h>
#include <nx/foundation/NxResult.h>

// A plain value without locks, cheap to copy once resolved.
// Types are AF_INET and AF_INET6; with any other type there is no usable address. The port is kept
// beside the socket address too, so that it survives the resolution of a host name.
class CNxInetAddr {
public:
    // IPv4 0.0.0.0, port 0. The text forms start from it too, so a failed one leaves it.
    CNxInetAddr();

    // The any address of the family, port 0. Another family than the two becomes the type as it is,
    // over a zeroed IPv4 socket address.
    explicit CNxInetAddr(int family);

    // Copies; the family field is forced to that of the structure. Null: IPv4 0.0.0.0, port 0.
    explicit CNxInetAddr(const sockaddr_in* address);
    explicit CNxInetAddr(const sockaddr_in6* address);

    // As the Set of the same arguments; IsResolved() tells how it went.
    CNxInetAddr(const char* host, unsigned short port);
    CNxInetAddr(const CNxString& host, unsigned short port);
    explicit CNxInetAddr(const char* hostPort);

    // What SetNumeric takes, else a host name; port in host order. An address clears the host name;
    // anything else is kept as the host name, and TryResolve() is called.
    // NX_OK; NX_ERROR_FAILURE, with nothing changed, for a null pointer, an empty CNxString or one
    // with a zero byte in it; the result of TryResolve().
    [[nodiscard]] NxResult Set(const char* host, unsigned short port);
    [[nodiscard]] NxResult Set(const CNxString& host, unsigned short port);

    // "host" (port 0) or "host:port", the port decimal and cut to 16 bits, 0 if it is no number.
    // What begins with '[' goes to SetNumeric.
    // As above, and with nothing changed: NX_ERROR_INVALID_ARG for a null pointer,
    // NX_ERROR_NOT_AVAILABLE for a host part of more than 511 characters.
    [[nodiscard]] NxResult Set(const char* hostPort);
    [[nodiscard]] NxResult Set(const CNxString& hostPort);

    // An address in figures, which asks nobody: IPv4, or IPv6 with or without its scope, the name
    // or number of an interface (RFC 4007 section 11): "10.0.0.1", "::1", "fe80::1%eth0". The port
    // may stand behind it, "10.0.0.1:80", "[fe80::1%2]:80"; without one it is 0.
    // NX_OK, or NX_ERROR_INVALID_ARG, with nothing changed, for any other text.
    [[nodiscard]] NxResult SetNumeric(const CNxString& host, unsigned short port);
    [[nodiscard]] NxResult SetNumeric(const CNxString& hostPort);

    // Set(host, 0).
    [[nodiscard]] NxResult SetIpAddrByString(const char* host);

    // Becomes an IPv4 address with a socket port of 0; of `ip` the low 32 bits count. The port kept
    // beside the socket address stays. NX_OK.
    NxResult SetIpAddrBy4Bytes(unsigned long ip, int isNetworkOrder);

    // Becomes an IPv6 address likewise. NX_OK, or NX_ERROR_INVALID_ARG, with nothing changed, for
    // null.
    [[nodiscard]] NxResult SetIp6AddrBy16Bytes(const char* address);

    // Host order. NX_OK, or NX_ERROR_FAILURE when the type is neither of the two; the port is then
    // kept all the same.
    [[nodiscard]] NxResult SetPort(unsigned short port);

    // Asks the DNS manager for the address of the host name; the port stays as set here.
    // NX_OK when there is no host name, or when it is resolved now: the address is then the first
    // one found. An address that is out of date is taken while a new look-up runs.
    // Otherwise the object stays as it was, and the call may be made again: NX_ERROR_WOULD_BLOCK
    // while the look-up runs, else why it failed, as CNxDnsManager::AsyncResolve returns it.
    // Defined in nx/resolve/CNxDnsManager.cpp, since the manager stands on this class.
    [[nodiscard]] NxResult TryResolve();

    // Type and size only, unchecked: for whoever has written an address through GetPtr(). A size
    // outside [0, 28] never makes an operation of the library read further than the 28 bytes.
    void base_set(int type, int size) {
        m_type = type;
        m_size = size;
    }

    // Host order. Of the socket address; of a type that is neither of the two, the port last set.
    unsigned short GetPort() const;

    int GetType() const { return m_type; }

    // Of the valid socket address: 16 for IPv4, 28 for IPv6. GetInetAddrSize() is the room for it.
    int GetSize() const { return m_size; }
    static constexpr int GetInetAddrSize() { return 28; }

    // 4, 16, or 0.
    int GeIPAddrSize() const;

    // The socket address, GetInetAddrSize() writable bytes; null unless IPv4 or IPv6.
    sockaddr* GetPtr() { return IsInet() ? &m_address.base : nullptr; }
    const sockaddr* GetPtr() const { return IsInet() ? &m_address.base : nullptr; }

    // The 4 or 16 address bytes in network order; null unless IPv4 or IPv6.
    const void* GetIpAddrPointer() const;

    // The IPv4 address in host order and in network order; 0 unless IPv4.
    unsigned int get_ip_address() const;
    unsigned long GetIpAddrIn4Bytes() const;

    // Writes 16 bytes. NX_OK, NX_ERROR_FAILURE unless IPv6, NX_ERROR_INVALID_ARG for null.
    [[nodiscard]] NxResult GetIp6AddrIn16Bytes(char* out) const;

    // Empty once resolved.
    const CNxString& GetHostName() const { return m_hostName; }
    bool IsResolved() const { return m_hostName.empty(); }

    // What to show to people: the host name while there is one, whatever the type; else the address
    // without the port; else "".
    CNxString GetIpDisplayName() const;

    // The address as text, IPv6 for that type and IPv4 for every other, in a buffer that all
    // callers share: the next call overwrites it, and two threads must not be in here at once.
    const char* GetHostAddr() const;

    // The same into `buffer`, whose `size` in bytes is enough for every address from 46 on. Returns
    // `buffer`, which holds "" when the text does not fit; a static "", with nothing written, for a
    // null buffer or a size below 1.
    const char* GetHostAddr(char* buffer, int size) const;

    // The same as a string of its own.
    CNxString GetHostAddrString() const;

    // With the port, as SetNumeric and Set take it: "10.0.0.1:80", "[fe80::1%2]:80", and "name:80"
    // while it is not resolved.
    CNxString GetHostPort() const;

    // IPv4 0.0.0.0, port 0.
    static CNxInetAddr s_InetAddrAny() { return CNxInetAddr(); }

    // Whether the text is an IPv6 or IPv4 literal, to its last byte.
    static bool IsIpAddress(const CNxString& text);

    // The address in network order, in the low 32 bits. False, with `out` 0, when the text is no
    // IPv4 literal; a null or empty text is 0 and true.
    [[nodiscard]] static bool IpAddrStringTo4Bytes(const char* text, unsigned long& out);

    // Writes 16 bytes. False when the text is no IPv6 literal or `out` is null; true with nothing
    // written for a null or empty text.
    [[nodiscard]] static bool Ip6AddrStringTo16Bytes(const char* text, char* out);

    // From network order; "" for null.
    static CNxString IpAddr4BytesToString(unsigned long ip);
    static CNxString IpAddr6BytesToString(const char* address);

    // Type, size and the first `size` bytes of the socket address; neither the host name nor the
    // port kept beside it.
    bool operator==(const CNxInetAddr& other) const;
    bool operator!=(const CNxInetAddr& other) const { return !(*this == other); }

    // By type, then address, port and (IPv6) scope; with a type that is neither of the two, by the
    // port last set.
    bool operator<(const CNxInetAddr& other) const;

    // Address plus port, so 0.0.0.1 port 1 and 0.0.0.0 port 2 collide.
    unsigned int hash() const;

private:
    union Address {
        sockaddr base;
        sockaddr_in v4;
        sockaddr_in6 v6;
    };
    static_assert(sizeof(Address) == 28, "the storage is exactly an IPv6 socket address");

    bool IsInet() const { return m_type == AF_INET || m_type == AF_INET6; }
    void ResetTo(int family);
    [[nodiscard]] bool ParseNumeric(const CNxString& host);

    int m_type;
    int m_size;
    Address m_address;
    unsigned short m_port = 0;
    CNxString m_hostName;
};
