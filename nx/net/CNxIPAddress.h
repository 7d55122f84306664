// An IPv4 address as four bytes with its dotted text and, when it was made from a name, that name.
//
// Two tests read the bytes in the other order than one would think: IsLoopback is true for
// 1.0.0.127 and not for 127.0.0.1, IsMultiCast looks at the last byte. Programs depend on it. For
// socket addresses see CNxInetAddr.
#pragma once

#include <netinet/in.h>

// A plain value, for one thread at a time. Look-ups of names and of hosts block for as long as the
// resolver takes.
class CNxIPAddress {
public:
    // From dotted text or else, by a look-up, from a host name; see ParseAddress. Not valid for
    // null, for empty text, and for what neither gives an address.
    explicit CNxIPAddress(const char* text);

    // Takes over validity, and from a valid one address and host name; an invalid one leaves those
    // of the assigned as they were. The resolver error is not taken over.
    CNxIPAddress(const CNxIPAddress& other);
    CNxIPAddress& operator=(const CNxIPAddress& other);

    virtual ~CNxIPAddress() = default;

    // "1.2.3.4"; empty when not valid.
    virtual const char* ToString() const { return m_text; }

    // Copies the four bytes, the first of the text first; nothing for null.
    virtual void ToOctet(unsigned char* octets) const;

    // Sets NEITHER validity NOR the dotted text, but the bytes, and the host name when it takes a
    // look-up; a host name of 64 or more characters is cut. Clears host name and resolver error
    // first. Returns 1; 0 when the text is neither dotted text nor a name with an IPv4 address,
    // with the resolver error -1 if the look-up failed. Null and empty text are not looked up.
    [[nodiscard]] virtual int ParseAddress(const char* text);

    // Makes the dotted text from the bytes.
    virtual void FormatOutput();

    // Sets the bytes, and nothing else, from "D.D.D.D", each D of one to three digits and at most
    // 255; zero is written 0 alone, other numbers may begin with zeroes. True when all four could
    // be set; else some of them MAY HAVE BEEN.
    [[nodiscard]] bool ParseDottedIPString(const char* text);

    // 1 or 0.
    int Valid() const { return m_valid; }

    // Makes it valid with the bytes of `address` as they lie in memory (network order), without a
    // host name.
    void SetIPAddr(unsigned int address);

    // Clears the bits that `mask` has not. Nothing happens unless both are valid.
    void Mask(const CNxIPAddress& mask);

    // The host name as far as it is known from ParseAddress. For a valid address without one the
    // host is looked up, but ONLY FOR THE ERROR: the name found is not stored. `error` gets 0 or
    // h_errno of the look-up; -1 after a ParseAddress that failed. A failed look-up leaves the
    // object unchanged.
    const char* ResolveHostname(int& error);

    // Looks the host up, as ResolveHostname, and returns 0 or its h_errno; HOST_NOT_FOUND when not
    // valid.
    [[nodiscard]] int AddrToFriendly() const;

    // Always -1, nothing is written. No look-up is made, since nobody could learn its result.
    static int ResolveToHostname(const in_addr& address, char* name);

    // The first IPv4 address of a host. 0; -1, with `address` unchanged, for null and when there is
    // none.
    [[nodiscard]] static int ResolveToAddress(const char* name, in_addr& address);

    // All 0 when not valid.

    // 1 for 10.x.x.x, 172.16.x.x and 192.168.0.x; no other range counts.
    int IsPrivate() const;
    // 1 for 1.0.0.127 without a host name only.
    int IsLoopback() const;
    // 1 when the LAST byte is 224 to 239.
    int IsMultiCast() const;
    // The address as a number, bytes as they lie in memory: not 0 for all but 0.0.0.0.
    unsigned int IsBroadCast() const;

private:
    unsigned int GetNumber() const;
    void SetHostName(const char* name);

    int m_valid = 0;
    char m_text[64] = "";
    unsigned char m_octets[4] = {};
    char m_hostName[64] = "";
    int m_resolverError = 0;
};
