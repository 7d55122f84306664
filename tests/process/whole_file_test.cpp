#include <gtest/gtest.h>
#include <nx/buffer/CNxMessageBlock.h>
#include <nx/process/whole_file.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cerrno>
#include <csignal>
#include <string>

#include "../support/TempFolder.h"
#include "Children.h"

namespace {

class WholeFile : public ::testing::Test {
protected:
    WholeFile() { EXPECT_EQ(0, mkfifo(m_folder.Path("pipe").c_str(), 0600)); }

    NxResult Read(const std::string& path, unsigned long maxSize = 1UL << 30) {
        CNxMessageBlock* block = nullptr;
        errno = 0;
        const NxResult result = cnx_read_file(path.c_str(), block, maxSize);
        EXPECT_EQ(result == NX_OK, block != nullptr) << path;
        if (block != nullptr) {
            EXPECT_EQ(nullptr, block->GetNext());
            m_text = block->FlattenChained().GetRawData();
            block->DestroyChained();
        }
        return result;
    }

    static NxResult Write(const std::string& path, const std::string& text) {
        const CNxMessageBlock block(text.size(), text.data(), 0, text.size());
        return cnx_write_file(path.c_str(), block, 0600);
    }

    // Beside the pipe.
    void ExpectOneFileOf(const std::string& text, mode_t mode) const {
        namespace fs = std::filesystem;
        EXPECT_EQ(text, m_folder.Get("file"));
        EXPECT_EQ(fs::perms(mode), fs::status(m_path).permissions());
        EXPECT_EQ(2, std::distance(fs::directory_iterator(m_folder.Path()), {}));
    }

    const CTempFolder m_folder;
    const std::string m_path = m_folder.Path("file");
    std::string m_text;
};

TEST_F(WholeFile, AChainOfManyBlocksIsWrittenWithThePermissionsOfTheFileReplaced) {
    ASSERT_EQ(NX_OK, Write(m_path, "1"));
    ExpectOneFileOf("1", 0600);
    ASSERT_EQ(0, chmod(m_path.c_str(), 0664));
    CNxMessageBlock chain(0);
    std::string all;
    for (size_t i = 0; i < 300; ++i) {
        const std::string text(i % 7 == 0 ? 0 : i, "abc"[i % 3]);
        auto* const block = new CNxMessageBlock(text.size(), nullptr, CNxMessageBlock::DUPLICATED);
        EXPECT_EQ(NX_OK, block->Write(text.data(), text.size()));
        chain.Append(block);
        all += text;
    }
    ASSERT_EQ(NX_OK, cnx_write_file(m_path.c_str(), chain, 0600));
    ExpectOneFileOf(all, 0664);
    chain.GetNext()->DestroyChained();
}

TEST_F(WholeFile, IsReadUpToALimitAlsoWhereItCallsItselfEmpty) {
    m_folder.Put("file", "12345");
    EXPECT_EQ(NX_OK, Read("/proc/self/smaps"));
    EXPECT_LT(16384u, m_text.size());
    EXPECT_NE(std::string::npos, m_text.rfind("VmFlags"));
    for (const std::string& path : {m_path, std::string("/proc/self/smaps")}) {
        EXPECT_EQ(NX_ERROR_FAILURE, Read(path, 4));
        EXPECT_EQ(EFBIG, errno);
    }
    EXPECT_EQ(NX_OK, Read(m_path, 5));
    EXPECT_EQ("12345", m_text);
    EXPECT_EQ(NX_ERROR_NOT_FOUND, Read(m_folder.Path("none")));
}

TEST_F(WholeFile, WhatIsRefusedOrFailsLeavesTheOldContentAndNothingElse) {
    ASSERT_EQ(NX_OK, Write(m_path, "old"));
    for (const std::string& path : {m_folder.Path(), m_folder.Path("pipe"), std::string()}) {
        EXPECT_EQ(NX_ERROR_INVALID_ARG, Read(path)) << path;
        EXPECT_EQ(NX_ERROR_INVALID_ARG, Write(path, "new")) << path;
    }
    const std::string link = m_folder.Path("link");
    ASSERT_EQ(0, symlink(m_path.c_str(), link.c_str()));
    EXPECT_EQ(NX_ERROR_INVALID_ARG, Write(link, "new"));
    ASSERT_EQ(0, unlink(link.c_str()));
    EXPECT_EQ(NX_ERROR_NOT_FOUND, Write(m_folder.Path("none/file"), "new"));
    InChild([&] {
        std::signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{5000, 5000};
        setrlimit(RLIMIT_FSIZE, &limit);
        EXPECT_EQ(NX_ERROR_FAILURE, Write(m_path, std::string(100000, 'x')));
        EXPECT_EQ(EFBIG, errno);
    });
    ExpectOneFileOf("old", 0600);
}

}  // namespace
