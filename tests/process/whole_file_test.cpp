#include <gtest/gtest.h>
#include <nx/buffer/CNxMessageBlock.h>
#include <nx/process/whole_file.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cerrno>
#include <csignal>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "../support/TempFolder.h"
#include "Children.h"

namespace {

NxResult Write(const std::string& path, const std::string& text, mode_t mode = 0644) {
    const CNxMessageBlock block(text.size(), text.data(), 0, text.size());
    return cnx_write_file(path.c_str(), block, mode);
}

std::string Read(const std::string& path) {
    CNxMessageBlock* block = nullptr;
    EXPECT_EQ(NX_OK, cnx_read_file(path.c_str(), block)) << path;
    const std::string text = block == nullptr ? "?" : block->FlattenChained().GetRawData();
    if (block != nullptr) {
        EXPECT_EQ(nullptr, block->GetNext());
        block->DestroyChained();
    }
    return text;
}

NxResult ReadResult(const std::string& path, unsigned long maxSize = 1UL << 30) {
    CNxMessageBlock* block = nullptr;
    errno = 0;
    const NxResult result = cnx_read_file(path.c_str(), block, maxSize);
    if (block != nullptr) {
        block->DestroyChained();
    }
    EXPECT_EQ(result == NX_OK, block != nullptr);
    return result;
}

mode_t ModeOf(const std::string& path) {
    struct stat status {};
    stat(path.c_str(), &status);
    return status.st_mode & 0777;
}

size_t CountFiles(const CTempFolder& folder) {
    return static_cast<size_t>(
        std::distance(std::filesystem::directory_iterator(folder.Path()), {}));
}

TEST(WholeFile, AChainOfManyBlocksComesBackAndStaysAsItIs) {
    const CTempFolder folder;
    std::vector<std::string> texts;
    std::vector<std::unique_ptr<CNxMessageBlock>> blocks;
    std::string all;
    for (int i = 0; i < 300; ++i) {
        texts.push_back(i % 7 == 0 ? "" : std::string(static_cast<size_t>(i), "abc"[i % 3]));
        all += texts.back();
    }
    for (const std::string& text : texts) {
        blocks.push_back(
            std::make_unique<CNxMessageBlock>(text.size(), text.data(), 0, text.size()));
        if (blocks.size() > 1) {
            blocks[blocks.size() - 2]->SetNext(blocks.back().get());
        }
    }
    const std::string path = folder.Path("file");
    ASSERT_EQ(NX_OK, cnx_write_file(path.c_str(), *blocks[0]));
    EXPECT_EQ(all, Read(path));
    EXPECT_EQ(all.size(), blocks[0]->GetChainedLength());
    ASSERT_EQ(NX_OK, Write(path, ""));
    EXPECT_EQ("", Read(path));
    EXPECT_EQ(1u, CountFiles(folder));
}

TEST(WholeFile, FilesThatCallThemselvesEmptyAreReadWhole) {
    const std::string text = Read("/proc/self/environ");
    for (char** variable = environ; *variable != nullptr; ++variable) {
        EXPECT_NE(std::string::npos, text.find(*variable));
    }
    EXPECT_LT(4096u, Read("/proc/self/smaps").size());
}

TEST(WholeFile, WhatIsTooLargeOrNoFileIsNotRead) {
    const CTempFolder folder;
    const std::string path = folder.Put("file", "12345");
    EXPECT_EQ(NX_OK, ReadResult(path, 5));
    EXPECT_EQ(NX_ERROR_FAILURE, ReadResult(path, 4));
    EXPECT_EQ(EFBIG, errno);
    EXPECT_EQ(NX_ERROR_FAILURE, ReadResult("/proc/self/smaps", 10));
    EXPECT_EQ(EFBIG, errno);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // they end the process
    // Larger than any memory, but not than what was asked for.
    ASSERT_EQ(0, truncate(path.c_str(), 1L << 43));
    EXPECT_EQ(NX_ERROR_FAILURE, ReadResult(path, ~0UL));
    EXPECT_EQ(ENOMEM, errno);
#endif
    ASSERT_EQ(0, mkfifo(folder.Path("pipe").c_str(), 0600));
    for (const std::string& other :
         {folder.Path(), folder.Path("pipe"), std::string("/dev/zero"), std::string()}) {
        EXPECT_EQ(NX_ERROR_INVALID_ARG, ReadResult(other)) << other;
    }
    EXPECT_EQ(NX_ERROR_NOT_FOUND, ReadResult(folder.Path("none")));
}

TEST(WholeFile, PermissionsAreThoseOfTheFileReplaced) {
    const CTempFolder folder;
    const std::string path = folder.Path("file");
    ASSERT_EQ(NX_OK, Write(path, "1", 0600));
    EXPECT_EQ(0600u, ModeOf(path));
    ASSERT_EQ(0, chmod(path.c_str(), 0664));
    ASSERT_EQ(NX_OK, Write(path, "2", 0600));
    EXPECT_EQ(0664u, ModeOf(path));
}

TEST(WholeFile, WhatIsNoRegularFileIsNotReplaced) {
    const CTempFolder folder;
    const std::string target = folder.Put("target", "old");
    ASSERT_EQ(0, symlink(target.c_str(), folder.Path("link").c_str()));
    ASSERT_EQ(0, mkfifo(folder.Path("pipe").c_str(), 0600));
    for (const std::string& path : {folder.Path("link"), folder.Path("pipe"), folder.Path("."),
                                    folder.Path("x/"), std::string()}) {
        EXPECT_EQ(NX_ERROR_INVALID_ARG, Write(path, "new")) << path;
    }
    EXPECT_EQ(NX_ERROR_NOT_FOUND, Write(folder.Path("none/file"), "new"));
    EXPECT_EQ("old", folder.Get("target"));
    EXPECT_EQ(3u, CountFiles(folder));
}

TEST(WholeFile, AWriteThatFailsLeavesTheOldContentAndNothingElse) {
    const CTempFolder folder;
    const std::string path = folder.Put("file", "old");
    const std::string large(100000, 'x');
    Child child([&] {
        std::signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{5000, 5000};
        setrlimit(RLIMIT_FSIZE, &limit);
        return Write(path, large) == NX_ERROR_FAILURE && errno == EFBIG ? 0 : 1;
    });
    EXPECT_EQ(0, child.Wait());
    EXPECT_EQ("old", folder.Get("file"));
    EXPECT_EQ(1u, CountFiles(folder));
}

TEST(WholeFile, AWriterThatIsKilledLeavesOneContentOrTheOtherWhole) {
    const CTempFolder folder;
    const std::string texts[] = {std::string(300000, 'a'), std::string(200000, 'b')};
    const std::string path = folder.Put("file", texts[0]);
    std::mt19937 random(1);
    size_t interrupted = 0;
    for (int round = ShortOr(20, 200); round > 0; --round) {
        Child child([&] {
            for (int i = 0;; ++i) {
                if (Write(path, texts[i % 2]) != NX_OK) {
                    return 1;
                }
            }
        });
        usleep(static_cast<useconds_t>(random() % 5000));
        child.Kill();
        const std::string found = folder.Get("file");
        ASSERT_TRUE(found == texts[0] || found == texts[1]) << found.size();
        interrupted = CountFiles(folder) - 1;
    }
    std::printf("%zu writes were cut short\n", interrupted);
}

}  // namespace
