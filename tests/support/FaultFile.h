// The file of a FaultPlan, for the side that makes the plan.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <tests/support/FaultPlan.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <string>

// All programs started from here on are under the plan, which at first has no call fail.
class FaultFile {
public:
    FaultFile(const std::string& path, const char* shim) {
        const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        void* const at =
            ftruncate(fd, sizeof(FaultPlan)) != 0
                ? MAP_FAILED
                : mmap(nullptr, sizeof(FaultPlan), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        close(fd);
        if (at == MAP_FAILED) {
            std::perror(path.c_str());
            std::abort();
        }
        m_plan = static_cast<FaultPlan*>(at);
        setenv("NX_FAULT_PLAN", path.c_str(), 1);
        setenv("LD_PRELOAD", shim, 1);
    }

    // A sanitizer's own library has to come first.
    static bool IsUsable() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
        return false;
#else
        return true;
#endif
    }

    // After `skip` good ones so many fail; no other call does.
    void Fail(FaultPlan::ECall call, int error, long skip, long count) const {
        Clear();
        m_plan->calls[call].Fail(error, skip, count);
    }
    void FailAll(FaultPlan::ECall call, int error) const {
        Fail(call, error, 0, LONG_MAX);
    }
    void Clear() const {
        for (FaultPlan::Call& call : m_plan->calls) {
            call.count = 0;
        }
    }

    long GetFailed(FaultPlan::ECall call) const {
        return m_plan->calls[call].failed;
    }

private:
    FaultPlan* m_plan;
};
