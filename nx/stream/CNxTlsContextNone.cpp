// For a library without TLS: no context can be made.
#include <nx/stream/CNxTlsContext.h>
#include <nx/stream/CStreamFilter.h>

class CNxTlsContext::CImp {};

CNxTlsContext::~CNxTlsContext() = default;

NxResult CNxTlsContext::CreateServer(CNxAutoPtr<CNxTlsContext>& /*out*/,
                                     const CNxTlsOptions& /*options*/, std::string& error) {
    error = "nxbase was built without TLS";
    return NX_ERROR_NOT_IMPLEMENTED;
}

NxResult CNxTlsContext::CreateClient(CNxAutoPtr<CNxTlsContext>& out, const CNxTlsOptions& options,
                                     std::string& error) {
    return CreateServer(out, options, error);
}

NxResult CNxTlsContext::Reload(std::string& /*error*/) {
    return NX_ERROR_NOT_IMPLEMENTED;
}

std::unique_ptr<CStreamFilter> CNxTlsContext::MakeFilter(const std::string& /*name*/,
                                                         std::string& /*error*/) {
    return nullptr;
}
