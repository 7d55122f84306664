#include <nx/reactor/CNxReactorSelect.h>
#include <nx/thread/CNxReactorThreadProxy.h>
#include <nx/thread/CNxThread.h>

#include "../reactor/ReactorSupport.h"

namespace {

TEST(ReactorThreadProxy, RegistersAndRemovesOnTheReactorsThreadWithItsAnswers) {
    const int type = CNxThreadManager::Instance()->GetAndIncreamUserType();
    CNxThread* thread = nullptr;
    ASSERT_EQ(CNxThreadManager::Instance()->CreateReactorThread(type, new CNxReactorSelect, thread),
              NX_OK);
    CNxReactorThreadProxyImp proxy(thread->GetReactor(), type);
    CNxEventThread called(0, 0);
    bool onReactorThread = false;
    End end([&](End& self) {
        onReactorThread = CNxThreadManager::IsEqualCurrentThread(type);
        self.Drain();
        called.Signal();
        return 0;
    });
    EXPECT_EQ(proxy.RegisterHandler(&end, NX_MASK_WRITE | NX_MASK_READ), NX_OK);
    EXPECT_EQ(proxy.RegisterHandler(&end, NX_MASK_READ), NX_ERROR_FOUND);
    end.Send();
    EXPECT_EQ(called.Wait(nullptr), NX_OK);
    EXPECT_EQ(proxy.RemoveHandler(&end, NX_MASK_READ), NX_OK);
    EXPECT_TRUE(onReactorThread);
    thread->Stop(nullptr);
    thread->Join();
    thread->Destory(0);
}

}  // namespace
