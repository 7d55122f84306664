#include <nx/stream/CNxTlsContext.h>
#include <nx/stream/CTlsFilter.h>
#include <nx/stream/CTlsSetup.h>

#include <new>
#include <utility>

namespace {

NxResult MakeSetup(std::shared_ptr<CTlsSetup>& out, bool isServer, const CNxTlsOptions& options,
                   std::string& error) {
    auto setup = std::make_shared<CTlsSetup>();
    const NxResult result = setup->Init(isServer, options, error);
    if (result == NX_OK) {
        out = std::move(setup);
    }
    return result;
}

template <class Call>
NxResult CatchBadAlloc(std::string& error, const Call& call) {
    try {
        return call();
    } catch (const std::bad_alloc&) {
        error = "out of memory";
        return NX_ERROR_FAILURE;
    }
}

}  // namespace

class CNxTlsContext::CImp {
public:
    CImp(bool isServer, const CNxTlsOptions& options) : m_isServer(isServer), m_options(options) {}

    static NxResult Create(CNxAutoPtr<CNxTlsContext>& out, bool isServer,
                           const CNxTlsOptions& options, std::string& error) {
        return CatchBadAlloc(error, [&] {
            auto imp = std::make_unique<CImp>(isServer, options);
            const NxResult result = imp->Load(error);
            if (result == NX_OK) {
                out = new CNxTlsContext(std::move(imp));
            }
            return result;
        });
    }

    // One at a time: what was read last is what counts.
    NxResult Load(std::string& error) {
        const CNxMutexGuardT<CNxMutexThread> loading(m_loading);
        std::shared_ptr<CTlsSetup> setup;
        const NxResult result = MakeSetup(setup, m_isServer, m_options, error);
        if (result == NX_OK) {
            // The old one goes after the lock.
            const CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
            m_setup.swap(setup);
        }
        return result;
    }

    std::shared_ptr<CTlsSetup> GetSetup() {
        const CNxMutexGuardT<CNxMutexThread> guard(m_mutex);
        return m_setup;
    }

private:
    const bool m_isServer;
    const CNxTlsOptions m_options;
    CNxMutexThread m_loading;
    CNxMutexThread m_mutex;
    std::shared_ptr<CTlsSetup> m_setup NX_GUARDED_BY(m_mutex);
};

CNxTlsContext::CNxTlsContext(std::unique_ptr<CImp> imp) : m_imp(std::move(imp)) {}

CNxTlsContext::~CNxTlsContext() = default;

NxResult CNxTlsContext::CreateServer(CNxAutoPtr<CNxTlsContext>& out, const CNxTlsOptions& options,
                                     std::string& error) {
    return CImp::Create(out, true, options, error);
}

NxResult CNxTlsContext::CreateClient(CNxAutoPtr<CNxTlsContext>& out, const CNxTlsOptions& options,
                                     std::string& error) {
    return CImp::Create(out, false, options, error);
}

NxResult CNxTlsContext::Reload(std::string& error) {
    return CatchBadAlloc(error, [&] { return m_imp->Load(error); });
}

std::unique_ptr<CStreamFilter> CNxTlsContext::MakeFilter(const std::string& name,
                                                         std::string& error) {
    auto filter = std::make_unique<CTlsFilter>(m_imp->GetSetup(), name);
    if (!filter->Init()) {
        error = filter->GetError();
        return nullptr;
    }
    return filter;
}
