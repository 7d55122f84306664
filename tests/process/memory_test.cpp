// Memory that runs out is a result code, and nothing is left of what was begun.
#include <gtest/gtest.h>
#include <nx/buffer/CNxMessageBlock.h>
#include <nx/process/CNxProcess.h>
#include <nx/process/CNxProcessInfo.h>
#include <nx/process/CNxProcessLock.h>
#include <nx/process/base64.h>
#include <nx/process/whole_file.h>

#include <cerrno>
#include <functional>

#include "../support/FailingNew.h"
#include "../support/TempFolder.h"

namespace {

long CountEntries(const std::string& folder) {
    return std::distance(std::filesystem::directory_iterator(folder), {});
}

// Each allocation of the call fails once, until it gets through.
void FailEachAllocation(const char* what, const std::function<NxResult()>& call) {
    const long descriptors = CountEntries("/proc/self/fd");
    NxResult result = NX_ERROR_FAILURE;
    for (long n = 0; result != NX_OK && n < 100000; ++n) {
        long failed = 0;
        int error = 0;
        {
            const FailingNew failing(n, FailingNew::ONCE);
            result = call();
            error = errno;
            failed = FailingNew::CountFailed();
        }
        ASSERT_EQ(failed == 0 ? NX_OK : NX_ERROR_FAILURE, result) << what << " " << n;
        ASSERT_TRUE(failed == 0 || error == ENOMEM) << what << " " << n << " " << error;
        ASSERT_EQ(descriptors, CountEntries("/proc/self/fd")) << what << " " << n;
    }
    EXPECT_EQ(NX_OK, result) << what;
}

TEST(Memory, RunsOutAsAResult) {
    const CTempFolder folder;
    const CNxString path = folder.Path("a_file_with_a_name_of_some_length").c_str();
    const CNxMessageBlock chain(7, "content", 0, 7);
    FailEachAllocation("write", [&] { return cnx_write_file(path, chain); });
    FailEachAllocation("read", [&] {
        CNxMessageBlock* block = nullptr;
        const NxResult result = cnx_read_file(path, block);
        if (block != nullptr) {
            block->DestroyChained();
        }
        return result;
    });
    FailEachAllocation("lock", [&] { return CNxProcessLock().Lock(path); });
    EXPECT_EQ(1, CountEntries(folder.Path()));
    FailEachAllocation("start", [] {
        CNxProcessStart start;
        CNxProcess process;
        try {
            start.m_program = "/bin/true";
            start.m_arguments = {"an argument of some length"};
            start.m_descriptors = {{1, 1}, {7, CNxRedirection::NULL_DEVICE}};
        } catch (const std::bad_alloc&) {
            errno = ENOMEM;
            return NX_ERROR_FAILURE;
        }
        return process.Start(start);
    });
    FailEachAllocation("info", [] {
        CNxProcessInfo info;
        return CNxProcessInfo::Read(getpid(), info);
    });
    CNxString bytes;
    const CNxString text = cnx_base64_encode("content of some length", 22);
    FailEachAllocation("base64", [&] { return cnx_base64_decode(text, bytes); });
}

}  // namespace
