// Memory that runs out is a result code, and nothing is left of what was begun.
#include <gtest/gtest.h>
#include <nx/buffer/CNxMessageBlock.h>
#include <nx/process/CNxProcess.h>
#include <nx/process/CNxProcessInfo.h>
#include <nx/process/CNxProcessLock.h>
#include <nx/process/base64.h>
#include <nx/process/whole_file.h>

#include <functional>

#include "../support/FailingNew.h"
#include "../support/TempFolder.h"

namespace {

long CountEntries(const std::string& folder) {
    return std::distance(std::filesystem::directory_iterator(folder), {});
}

// Each allocation of the call fails once, until it gets through.
TEST(Memory, RunsOutAsAResult) {
    const CTempFolder folder;
    const CNxString path = folder.Path("a_file_with_a_name_of_some_length").c_str();
    const CNxMessageBlock chain(7, "content", 0, 7);
    const CNxString text = cnx_base64_encode("content of some length", 22);
    CNxString bytes;
    CNxMessageBlock* block = nullptr;
    CNxProcessInfo info;
    CNxProcessStart start;
    start.m_program = "/bin/true";
    start.m_arguments = {"an argument of some length"};
    start.m_descriptors = {{1, 1}, {7, CNxRedirection::NULL_DEVICE}};
    const std::function<NxResult()> calls[] = {
        [&] { return cnx_write_file(path, chain); },
        [&] { return cnx_read_file(path, block); },
        [&] { return CNxProcessLock().Lock(path); },
        [&] { return CNxProcess().Start(start); },
        [&] { return CNxProcessInfo::Read(getpid(), info); },
        [&] { return cnx_base64_decode(text, bytes); },
    };
    for (const auto& call : calls) {
        const long descriptors = CountEntries("/proc/self/fd");
        NxResult result = NX_ERROR_FAILURE;
        for (long n = 0; result != NX_OK; ++n) {
            failing_new::Fail(n, 1);
            result = call();
            const int error = errno;
            const bool hasFailed = failing_new::Stop() > n;
            ASSERT_EQ(hasFailed ? NX_ERROR_FAILURE : NX_OK, result) << &call - calls << " " << n;
            ASSERT_TRUE(!hasFailed || error == ENOMEM) << &call - calls << " " << n;
            ASSERT_EQ(descriptors, CountEntries("/proc/self/fd")) << &call - calls << " " << n;
        }
    }
    EXPECT_EQ(1, CountEntries(folder.Path()));
    block->DestroyChained();
}

}  // namespace
