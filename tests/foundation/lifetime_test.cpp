// The clean-up list and singletons.
#include <gtest/gtest.h>
#include <nx/foundation/CNxCleanUpBase.h>
#include <nx/foundation/CNxSingleton.h>

#include <future>
#include <string>
#include <vector>

namespace {

std::string g_order;

class Kept : public CNxCleanUpBase {
protected:
    void CleanUp() override { g_order += 'k'; }
};

class Inner {
public:
    static Inner* Instance() { return CNxSingletonT<Inner>::Instance(); }
    ~Inner() { g_order += 'i'; }
};

class Outer {
public:
    static Outer* Instance() { return CNxSingletonT<Outer>::Instance(); }
    ~Outer() { g_order += 'o'; }

private:
    friend class CNxSingletonT<Outer>;
    Outer() { Inner::Instance(); }
};

TEST(CNxSingletonT, ManyThreadsMakeOneAndTheNewestIsDestroyedFirstAndOnce) {
    Kept kept;
    std::vector<std::future<Outer*>> seen;
    for (int i = 0; i < 8; ++i) {
        seen.push_back(std::async(std::launch::async, &Outer::Instance));
    }
    for (auto& one : seen) {
        EXPECT_EQ(one.get(), Outer::Instance());
    }
    CNxCleanUpBase::CleanupAll();
    EXPECT_EQ(g_order, "iok");
    CNxCleanUpBase::CleanupAll();
    EXPECT_EQ(g_order, "iok");
}

}  // namespace
