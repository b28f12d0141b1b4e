#include "kp/config/file_lock.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/child.h"
#include "support/installation.h"

namespace {

using kp::test::Outcome;
using kp::test::runInChild;

class FileLockTest : public kp::test::InstallationTest {
protected:
    std::string path_ = site_.path("day.lock");
};

bool isOpen(int descriptor) {
    return ::fcntl(descriptor, F_GETFD) >= 0;
}

TEST_F(FileLockTest, OneOpeningKeepsAnotherOutInThisProcessAndInOthers) {
    site_.openLog(1);
    KP_FileLock first;
    KP_FileLock second;
    ASSERT_EQ(first.open(path_.c_str()), 0);
    ASSERT_EQ(second.open(path_.c_str()), 0);
    struct stat status {};
    ASSERT_EQ(::stat(path_.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
    EXPECT_EQ(status.st_size, 0);

    EXPECT_EQ(first.lock(), 0);
    EXPECT_TRUE(first.isHeld());
    EXPECT_EQ(site_.newLog(), "");
    EXPECT_EQ(second.lock(), 0);
    EXPECT_FALSE(second.isHeld());
    EXPECT_EQ(site_.newLog(), "my_lockf: can't F_LOCK, (errno = 11)");
    EXPECT_EQ(second.unlock(), 0);  // does not end the other's
    EXPECT_EQ(site_.newLog(), "my_unlockf: can't F_LOCK, (errno = 13)");

    const auto tryInChild = [&] {
        return runInChild([&] {
                   KP_FileLock child;
                   child.open(path_.c_str());
                   child.lock();
                   return child.isHeld() ? 7 : 8;
               })
            .status;
    };
    EXPECT_EQ(tryInChild(), 8);
    first.unlock();
    EXPECT_FALSE(first.isHeld());
    EXPECT_EQ(tryInChild(), 7);
    second.lock();  // the child has ended, and its lock with it
    EXPECT_TRUE(second.isHeld());
}

TEST_F(FileLockTest, ClosesWhatItOpenedAndNothingElse) {
    const int handedIn = ::open(path_.c_str(), O_RDWR | O_CREAT, 0600);
    ASSERT_GT(handedIn, 0);
    KP_FileLock other;
    other.open(path_.c_str());
    {
        KP_FileLock lock;
        lock.setFD(handedIn);
        lock.lock();
        EXPECT_TRUE(lock.isHeld());
        KP_FileLock copy(lock);
        EXPECT_FALSE(copy.isHeld());
        copy = lock;
    }
    EXPECT_TRUE(isOpen(handedIn));
    other.lock();
    EXPECT_FALSE(other.isHeld());  // the handed in file is still open and locked
    ::close(handedIn);
    other.lock();
    EXPECT_TRUE(other.isHeld());

    std::FILE* const file = std::tmpfile();
    KP_FileLock copy(other);
    copy.unlock();  // the descriptor's lock, whoever has locked it
    KP_FileLock fourth;
    fourth.open(path_.c_str());
    fourth.lock();
    EXPECT_TRUE(fourth.isHeld());
    copy.setFD(file);
    copy.lock();
    EXPECT_TRUE(copy.isHeld());
    std::fclose(file);
}

TEST_F(FileLockTest, AFileThatCannotBeOpenedIsTold) {
    const std::string missing = site_.path("none/day.lock");
    const Outcome outcome = runInChild([&] {
        site_.openLog();
        KP_FileLock lock;
        return lock.open(missing.c_str()) == -1 ? 7 : 8;
    });
    EXPECT_EQ(outcome.status, 7);
    EXPECT_EQ(outcome.err, "archiving_openReader: No such file or directory\n");
    EXPECT_EQ(site_.newLog(), "TIME - archiving_openReader: error opening " + missing + "\n");
}

TEST_F(FileLockTest, ADescriptorForReadingHasASharedLock) {
    site_.write("day.lock", "");
    const int readers[] = {::open(path_.c_str(), O_RDONLY), ::open(path_.c_str(), O_RDONLY)};
    KP_FileLock first;
    KP_FileLock second;
    KP_FileLock writer;
    first.setFD(readers[0]);
    second.setFD(readers[1]);
    writer.open(path_.c_str());
    first.lock();
    second.lock();
    writer.lock();
    EXPECT_TRUE(first.isHeld() && second.isHeld() && !writer.isHeld());
    first.unlock();
    second.unlock();
    writer.lock();
    first.lock();
    EXPECT_TRUE(writer.isHeld() && !first.isHeld());
    ::close(readers[0]);
    ::close(readers[1]);
    first.lock();  // What is closed can have none.
    EXPECT_FALSE(first.isHeld());
}

}  // namespace
