// Inside the library only: the TLS sessions that clients may resume.
#pragma once

#include <nx/foundation/CNxMutexThread.h>
#include <nx/stream/openssl_objects.h>

#include <list>
#include <string>
#include <string_view>
#include <unordered_map>

// The last session of each server, by its name; of the 1,000 names that were used last. Any thread
// may call any operation. What is kept is shared with no connection: one that fails would spoil its
// session for the others.
class CTlsSessions {
public:
    CTlsSessions() = default;
    CTlsSessions(const CTlsSessions&) = delete;
    CTlsSessions& operator=(const CTlsSessions&) = delete;

    // Keeps what the connections of the context get; nothing when there is no memory for that. Must
    // live as long as they.
    void KeepSessionsOf(SSL_CTX* context);

    // Offers the server the session that it has given last, and keeps what it gives from now on.
    // `name` must live as long as the connection. True when there was one. Throws std::bad_alloc.
    bool Offer(SSL* ssl, const std::string& name);

    void Forget(const std::string& name);

private:
    struct Entry {
        std::string name;
        CSslSessionPtr session;
    };
    using Entries = std::list<Entry>;

    static int OnNewSession(SSL* ssl, SSL_SESSION* session);
    void Put(const std::string& name, CSslSessionPtr session);
    Entries::iterator Find(const std::string& name) NX_REQUIRES(m_mutex);

    CNxMutexThread m_mutex;
    Entries m_entries NX_GUARDED_BY(m_mutex);  // used last, first
    std::unordered_map<std::string_view, Entries::iterator> m_byName NX_GUARDED_BY(m_mutex);
};
