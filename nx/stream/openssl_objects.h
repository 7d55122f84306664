// Inside the library only: owners of OpenSSL's objects, and its errors as text.
#pragma once

#include <openssl/ssl.h>

#include <memory>
#include <string>

template <auto Free>
struct CFreeOpenSsl {
    template <class T>
    void operator()(T* object) const {
        Free(object);
    }
};

using CBioPtr = std::unique_ptr<BIO, CFreeOpenSsl<BIO_free_all>>;
using CCertificatePtr = std::unique_ptr<X509, CFreeOpenSsl<X509_free>>;
using CKeyPtr = std::unique_ptr<EVP_PKEY, CFreeOpenSsl<EVP_PKEY_free>>;
using CSslContextPtr = std::unique_ptr<SSL_CTX, CFreeOpenSsl<SSL_CTX_free>>;
using CSslSessionPtr = std::unique_ptr<SSL_SESSION, CFreeOpenSsl<SSL_SESSION_free>>;
using CSslPtr = std::unique_ptr<SSL, CFreeOpenSsl<SSL_free>>;

// What the thread's queue of errors (ERR_get_error(3)) says, for people: the oldest of TLS, which
// sums up what led to it, else the oldest. Empties the queue.
std::string TakeOpenSslError();
