#include <nx/reactor/CNxReactorSelect.h>
#include <nx/reactor/CNxReactorThreadProxy.h>
#include <nx/thread/CNxThread.h>

#include "ReactorSupport.h"

namespace {

// Refused by a proxy without a thread, and by all of them where the operation is refused.
void ExpectRefusedEventsDestroyedOnce(CNxReactorThreadProxyImp& proxy, NxResult postedResult) {
    EventCounts counts;
    INxEventQueue& queue = proxy;
    EXPECT_EQ(proxy.SendEvent(new CountedEvent(counts)), NX_ERROR_NOT_IMPLEMENTED);
    EXPECT_EQ(proxy.CNxReactorThreadProxy::PostEvent(new CountedEvent(counts)),
              NX_ERROR_NOT_IMPLEMENTED);
    EXPECT_EQ(proxy.SendEvent(nullptr), NX_ERROR_NOT_IMPLEMENTED);
    EXPECT_EQ(queue.PostEvent(nullptr, c_normal), NX_ERROR_INVALID_ARG);
    EXPECT_EQ(counts.m_destroyed, 2);
    EXPECT_EQ(queue.PostEvent(new CountedEvent(counts), c_normal), postedResult);
    // Behind the posted one.
    End end;
    proxy.RegisterHandler(&end, NX_MASK_READ);
    proxy.RemoveHandler(&end, NX_MASK_READ);
    EXPECT_EQ(counts.m_destroyed, 3);
    EXPECT_EQ(counts.m_fired, postedResult == NX_OK ? 1 : 0);
}

class ReactorThreadProxy : public ::testing::Test {
protected:
    void SetUp() override {
        m_type = CNxThreadManager::Instance()->GetAndIncreamUserType();
        ASSERT_EQ(CNxThreadManager::Instance()->CreateReactorThread(m_type, new CNxReactorSelect,
                                                                    m_thread),
                  NX_OK);
    }
    void TearDown() override {
        m_thread->Stop(nullptr);
        m_thread->Join();
        m_thread->Destory(0);
    }

    int m_type = 0;
    CNxThread* m_thread = nullptr;
};

TEST_F(ReactorThreadProxy, RegistersAndRemovesOnTheReactorsThreadWithItsAnswers) {
    CNxReactorThreadProxyImp direct(m_thread->GetReactor(), m_type);
    CNxReactorThreadProxyImp nested(&direct, m_type);
    for (CNxReactorThreadProxyImp* proxy : {&direct, &nested}) {
        CNxEventThread called(0, 0);
        bool onReactorThread = false;
        End end([&](End& self) {
            onReactorThread = CNxThreadManager::IsEqualCurrentThread(m_type);
            self.Drain();
            called.Signal();
            return 0;
        });
        EXPECT_EQ(proxy->GetReactorType(), INxReactor::TYPE_SELECT);
        EXPECT_EQ(proxy->RegisterHandler(nullptr, NX_MASK_READ), NX_ERROR_INVALID_ARG);
        EXPECT_EQ(proxy->RegisterHandler(&end, NX_MASK_WRITE | NX_MASK_READ), NX_OK);
        EXPECT_EQ(proxy->RegisterHandler(&end, NX_MASK_READ), NX_ERROR_FOUND);
        end.Send();
        called.Wait(nullptr);
        EXPECT_EQ(proxy->RemoveHandler(&end, NX_MASK_READ), NX_OK);
        EXPECT_TRUE(onReactorThread);
        ExpectRefusedEventsDestroyedOnce(*proxy, NX_OK);
    }
}

TEST_F(ReactorThreadProxy, OwnersOperationsAreRefusedAndAccessorsPassedOn) {
    class Idle : public INxTimerHandler {
        void OnTimeout(const CNxTimeValue& /*curTime*/, void* /*token*/) override {}
    } timer;
    INxReactor* const real = m_thread->GetReactor();
    CNxReactorThreadProxyImp proxy(real, m_type);
    EXPECT_EQ(proxy.StopEventLoop(), NX_ERROR_NOT_IMPLEMENTED);
    EXPECT_EQ(proxy.ScheduleTimer(&timer, nullptr, CNxTimeValue(1, 0), 1),
              NX_ERROR_NOT_IMPLEMENTED);
    proxy.SetCookie(&timer);
    EXPECT_EQ(real->GetCookie(), &timer);
    EXPECT_EQ(proxy.GetCookie(), &timer);
    EXPECT_EQ(proxy.GetBufferPtr(), real->GetBufferPtr());
    EXPECT_EQ(proxy.GetBufferSize(), 65535u);
}

TEST_F(ReactorThreadProxy, ProxyWithoutAReactorOrAThreadSaysSo) {
    constexpr int c_noThread = 3;
    End end;
    for (const int type : {m_type, c_noThread}) {
        CNxReactorThreadProxyImp proxy(nullptr, type);
        EXPECT_EQ(proxy.RegisterHandler(&end, NX_MASK_READ), NX_ERROR_NULL_POINTER);
        EXPECT_EQ(proxy.RemoveHandler(&end, NX_MASK_READ), NX_ERROR_NULL_POINTER);
        EXPECT_EQ(proxy.GetReactorType(), 0);
        EXPECT_EQ(proxy.GetPendingEventsCount(), 0u);
    }
    CNxReactorThreadProxyImp proxy(m_thread->GetReactor(), c_noThread);
    EXPECT_EQ(proxy.RegisterHandler(&end, NX_MASK_READ), NX_ERROR_UNEXPECTED);
    ExpectRefusedEventsDestroyedOnce(proxy, NX_ERROR_UNEXPECTED);
}

}  // namespace
