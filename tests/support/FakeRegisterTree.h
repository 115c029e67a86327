// SPDX-License-Identifier: Apache-2.0
// The files of the sequencer's driver in memory, with a journal of what was done to them.
#pragma once

#include "support/LockRegisterFiles.h"

#include <velmor/q47/seqlock/SeqlockDriver.h>

#include <cerrno>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <ostream>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace libfieldwarden::test {

/// A driver of text files, a notification file and memories, without streams. A path that is not there cannot
/// be opened. Any thread.
///
/// Lines of the journal: "test /path" and "test writing /path" for the tests of a file, "read /path",
/// "write /path 1", "open /path" for the notification file and the memories, then "arm 100" for a read of so
/// many bytes, "wait 1 s 500000 us", "close notification"; "load /path 12 bytes" when a memory is flushed.
class FakeRegisterTree final : public velmor::q47::seqlock::SeqlockDriver {
public:
    /// How a wait on the notification file ends: the answer of select(2) and, where it fails, its errno.
    struct Wait {
        int result = 1;
        int number = 0;
    };

    /// @return A tree with every file of the sequencer, all of them "0\n".
    static std::shared_ptr<FakeRegisterTree> whole() {
        auto tree = std::make_shared<FakeRegisterTree>();
        for (auto const& each : kLockRegisterFiles) {
            for (std::string const& path : pathsOf(each)) {
                tree->put(path, "0\n");
                if (!each.writable) {
                    tree->protect(path);
                }
            }
        }
        tree->put(std::string(kLockRegisterRoot) + "irq/irq_notification", "");
        tree->put("/dev/seqlock", "");
        tree->put("/dev/seqlock-window", "");
        return tree;
    }

    /// Makes a file, or gives it another text.
    void put(std::string const& aPath, std::string aText) {
        std::lock_guard const lock(mMutex);
        mTexts[aPath] = std::move(aText);
    }
    void remove(std::string const& aPath) {
        std::lock_guard const lock(mMutex);
        mTexts.erase(aPath);
    }
    /// Lets a file be read only.
    void protect(std::string const& aPath) {
        std::lock_guard const lock(mMutex);
        mProtected.insert(aPath);
    }
    /// How the waits on the notification file end; what it does while they last.
    void onWait(std::function<Wait()> aWait) {
        std::lock_guard const lock(mMutex);
        mOnWait = std::move(aWait);
    }

    std::string text(std::string const& aPath) const {
        std::lock_guard const lock(mMutex);
        auto const found = mTexts.find(aPath);
        return found == mTexts.end() ? std::string() : found->second;
    }
    std::vector<std::string> takeJournal() {
        std::lock_guard const lock(mMutex);
        return std::exchange(mJournal, {});
    }

    bool canRead(std::string const& aPath) override {
        std::lock_guard const lock(mMutex);
        mJournal.push_back("test " + aPath);
        return mTexts.contains(aPath);
    }
    bool canWrite(std::string const& aPath) override {
        std::lock_guard const lock(mMutex);
        mJournal.push_back("test writing " + aPath);
        return mTexts.contains(aPath) && !mProtected.contains(aPath);
    }
    std::string readRegister(std::string const& aPath) override {
        note("read " + aPath);
        return text(aPath);
    }
    void writeRegister(std::string const& aPath, std::string const& aText) override {
        std::lock_guard const lock(mMutex);
        mJournal.push_back("write " + aPath + " " + aText);
        if (mTexts.contains(aPath) && !mProtected.contains(aPath)) {
            mTexts[aPath] = aText;
        }
    }
    std::unique_ptr<velmor::q47::seqlock::Notification> openNotification(std::string const& aPath) override {
        note("open " + aPath);
        if (!exists(aPath)) {
            errno = ENOENT;
            return nullptr;
        }
        return std::make_unique<EventFile>(*this);
    }
    std::unique_ptr<std::ostream> openMemory(std::string const& aPath) override {
        note("open " + aPath);
        auto stream = std::make_unique<Memory>(*this, aPath);
        if (!exists(aPath)) {
            stream->setstate(std::ios::failbit);
        }
        return stream;
    }
    std::unique_ptr<velmor::q47::seqlock::StreamDevice> openStream(std::string const& aPath) override {
        throw std::logic_error("FakeRegisterTree: no stream " + aPath);
    }

private:
    class EventFile final : public velmor::q47::seqlock::Notification {
    public:
        explicit EventFile(FakeRegisterTree& aTree)
            : mTree(aTree) {}
        ~EventFile() override { mTree.note("close notification"); }

        ssize_t read(char* /*aBuffer*/, std::size_t aSize) override {
            mTree.note("arm " + std::to_string(aSize));
            errno = EIO;
            return -1; // nobody may care
        }
        int wait(std::chrono::seconds aSeconds, std::chrono::microseconds aMicroseconds) override {
            mTree.note("wait " + std::to_string(aSeconds.count()) + " s " +
                       std::to_string(aMicroseconds.count()) + " us");
            Wait const wait = mTree.nextWait();
            errno = wait.number;
            return wait.result;
        }

    private:
        FakeRegisterTree& mTree;
    };

    class MemoryBuffer : public std::stringbuf {
    public:
        MemoryBuffer(FakeRegisterTree& aTree, std::string aPath)
            : mTree(aTree)
            , mPath(std::move(aPath)) {}

    protected:
        int sync() override {
            mTree.note("load " + mPath + " " + std::to_string(str().size()) + " bytes");
            mTree.put(mPath, str());
            return 0;
        }

    private:
        FakeRegisterTree& mTree;
        std::string mPath;
    };

    class Memory final : private MemoryBuffer, public std::ostream {
    public:
        Memory(FakeRegisterTree& aTree, std::string aPath)
            : MemoryBuffer(aTree, std::move(aPath))
            , std::ostream(static_cast<MemoryBuffer*>(this)) {}
    };

    void note(std::string aLine) {
        std::lock_guard const lock(mMutex);
        mJournal.push_back(std::move(aLine));
    }
    bool exists(std::string const& aPath) const {
        std::lock_guard const lock(mMutex);
        return mTexts.contains(aPath);
    }
    Wait nextWait() {
        std::function<Wait()> onWait;
        {
            std::lock_guard const lock(mMutex);
            onWait = mOnWait;
        }
        return onWait ? onWait() : Wait{};
    }

    mutable std::mutex mMutex; ///< Guards all below.
    std::map<std::string, std::string> mTexts;
    std::set<std::string> mProtected;
    std::function<Wait()> mOnWait;
    std::vector<std::string> mJournal;
};

} // namespace libfieldwarden::test
