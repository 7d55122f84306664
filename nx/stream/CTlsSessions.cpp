#include <nx/stream/CTlsSessions.h>

#include <cassert>
#include <new>

namespace {

constexpr size_t c_maxNames = 1000;

}  // namespace

void CTlsSessions::KeepSessionsOf(SSL_CTX* context) {
    SSL_CTX_set_session_cache_mode(context,
                                   SSL_SESS_CACHE_CLIENT | SSL_SESS_CACHE_NO_INTERNAL_STORE);
    if (SSL_CTX_set_app_data(context, this) == 1) {
        SSL_CTX_sess_set_new_cb(context, &OnNewSession);
    }
}

bool CTlsSessions::Offer(SSL* ssl, const std::string& name) {
    SSL_set_app_data(ssl, const_cast<std::string*>(&name));
    const CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    const auto found = Find(name);
    if (found == m_entries.end()) {
        return false;
    }
    const CSslSessionPtr copy(SSL_SESSION_dup(found->session.get()));
    return copy != nullptr && SSL_set_session(ssl, copy.get()) == 1;
}

void CTlsSessions::Forget(const std::string& name) {
    const CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    const auto found = Find(name);
    if (found != m_entries.end()) {
        m_byName.erase(found->name);
        m_entries.erase(found);
    }
}

// Called by OpenSSL: nothing may be thrown. Without memory the session is not kept. Returns 0: no
// reference was taken.
int CTlsSessions::OnNewSession(SSL* ssl, SSL_SESSION* session) {
    auto* const self = static_cast<CTlsSessions*>(SSL_CTX_get_app_data(SSL_get_SSL_CTX(ssl)));
    const auto* const name = static_cast<const std::string*>(SSL_get_app_data(ssl));
    CSslSessionPtr copy(name == nullptr ? nullptr : SSL_SESSION_dup(session));
    if (copy != nullptr) {
        try {
            self->Put(*name, std::move(copy));
        } catch (const std::bad_alloc&) {
            self->Forget(*name);
        }
    }
    return 0;
}

void CTlsSessions::Put(const std::string& name, CSslSessionPtr session) {
    const CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
    const auto found = Find(name);
    if (found != m_entries.end()) {
        found->session = std::move(session);
        return;
    }
    Entries added;
    added.push_back({name, std::move(session)});
    m_byName.emplace(added.front().name, added.begin());
    m_entries.splice(m_entries.begin(), added);
    if (m_entries.size() > c_maxNames) {
        m_byName.erase(m_entries.back().name);
        m_entries.pop_back();
    }
    assert(m_entries.size() == m_byName.size());
}

// Moves it to the front.
CTlsSessions::Entries::iterator CTlsSessions::Find(const std::string& name) {
    const auto found = m_byName.find(name);
    if (found == m_byName.end()) {
        return m_entries.end();
    }
    m_entries.splice(m_entries.begin(), m_entries, found->second);
    return found->second;
}
