// Endpoint records whose bytes no publisher of this library would write:
// wrong sizes, a first length beyond the data, garbage mutexes, odd flag
// values, and names that cannot be records. A listing skips what it cannot
// read and never crashes or hangs; the two failures the record's reading
// reports by design stay exactly as they are: std::out_of_range from the
// data split when firstLength exceeds the data, and std::runtime_error for a
// mutex that probes in an undesired state.
#include <gtest/gtest.h>

#include <linux/futex.h>
#include <pthread.h>
#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <cstring>
#include <stdexcept>

#include <endpointregistry/endpoint.hpp>

#include "diagnostics/diagnostics.hpp"
#include "diagnostics/test_hooks.hpp"
#include "directory/directory_entry.hpp"
#include "directory/named_string_array.hpp"
#include "directory/segment_names.hpp"
#include "endpoint/endpoint_impl.hpp"
#include "record/record_layout.hpp"
#include "support/child_process.hpp"
#include "support/log_capture.hpp"
#include "support/registry_cleanup.hpp"
#include "support/shm_files.hpp"

namespace agent::spf::endpointregistry {
namespace {

using agent::spf::sharedmemory::SharedMemory;
using er::test::ChildProcess;
using er::test::fileExists;
using er::test::LogCapture;
using er::test::readBytes;
using er::test::RegistryCleanup;
using er::test::uniqueName;
using er::test::userScope;
using DataPair = std::pair<std::string, std::string>;
using Pairs = std::vector<DataPair>;
using namespace std::chrono_literals;

// A pid that belonged to a process which has ended.
pid_t deadPid() {
  ChildProcess child([](ChildProcess&) { return 0; });
  const pid_t pid = child.pid();
  child.wait();
  return pid;
}

// A process that locks the liveness mutex of a record planted under its pid
// and holds it until it is told to let go (or is killed).
class MutexHolder {
 public:
  MutexHolder()
      : child([](ChildProcess& self) {
          const auto name = self.readFromParent();
          if (!name) return 1;
          SharedMemory segment = Endpoint::Impl::findSharedMemory(*name, "");
          if (!segment.isAttached()) return 2;
          auto* header = static_cast<RecordHeader*>(segment.getPointer());
          if (pthread_mutex_lock(&header->livenessMutex) != 0) return 3;
          self.tellParent("locked");
          self.readFromParent(120s);
          return 0;
        }) {}

  pid_t pid() const { return child.pid(); }
  void lock(const std::string& name) {
    child.tellChild(name);
    ASSERT_EQ(child.readFromChild(), "locked");
  }

 private:
  ChildProcess child;
};

class CorruptRecordsTest : public ::testing::Test {
 protected:
  // The name a record of `data` under the test's tag would have in process `pid`.
  std::string nameFor(const DataPair& data, pid_t pid, unsigned long dataLength) const {
    return synonymPrefix(data, tag) + "l" + std::to_string(dataLength) + "p" + std::to_string(pid) + "v0";
  }

  // Plants a record segment of `size` bytes (data written, mutex set up,
  // flag and first length as given) and enters its name in the directory.
  void plant(const std::string& name, std::size_t size, const std::string& joined, std::uint64_t firstLength,
             std::uint8_t flag) {
    SharedMemory segment = SharedMemory::create(name, size, "", {});
    ASSERT_TRUE(segment.isAttached()) << name;
    auto* header = static_cast<RecordHeader*>(segment.getPointer());
    PThreadRobustLockGuard::initializeMutex(&header->livenessMutex);
    header->livenessFlag = flag;
    header->firstLength = firstLength;
    std::memcpy(static_cast<char*>(segment.getPointer()) + recordDataOffset, joined.data(),
                std::min(joined.size(), size - recordDataOffset));
    segment.makePersistent();
    NamedStringArray(registryDirectoryName, 0, "").insert(name);
  }

  RecordHeader* headerIn(SharedMemory& segment) { return static_cast<RecordHeader*>(segment.getPointer()); }
  std::string path(const std::string& name) const { return er::test::userPath(name); }
  std::vector<std::string> namesInDirectory() const { return listDirectoryNames(groupPrefix(tag), ""); }

  std::string tag = uniqueName("corruptTag");
  RegistryCleanup cleanup{tag};
};

TEST_F(CorruptRecordsTest, SegmentSmallerThanItsNameSaysIsSkippedAndLeftAlone) {
  const DataPair data{"short", "segment"};
  const std::string name = nameFor(data, getpid(), 12);
  plant(name, recordSegmentSize(12) - 1, "shortsegment", 5, 1);
  const auto before = readBytes(path(name));
  Endpoint live({"live", "one"}, tag);
  EXPECT_EQ(Endpoint::filterFromLocal(tag), (Pairs{{"live", "one"}}));
  EXPECT_EQ(Endpoint::Impl::getDataPair(name, ""), DataPair{});
  EXPECT_EQ(readBytes(path(name)), before);
  const auto names = namesInDirectory();
  EXPECT_NE(std::find(names.begin(), names.end(), name), names.end());
}

TEST_F(CorruptRecordsTest, NamesThatCannotBeRecordsAreSkipped) {
  const std::string prefix = groupPrefix(tag);
  const std::vector<std::string> names{prefix + "/../x",
                                       prefix + std::string(300, 'a'),
                                       prefix + "l18446744073709551615p1v0",
                                       prefix + "l9223372036854775807p1v0",
                                       prefix + "l99999999999p1v0",
                                       prefix + "l-3p1v0",
                                       prefix};
  NamedStringArray directory(registryDirectoryName, 0, "");
  for (const std::string& name : names) directory.insert(name);
  directory.insert(std::vector<std::string>{prefix + "l0p1v0", "second string"});
  Endpoint live({"live", "two"}, tag);
  EXPECT_EQ(Endpoint::filterFromLocal(tag), (Pairs{{"live", "two"}}));
  EXPECT_EQ(namesInDirectory().size(), names.size() + 1);  // nothing to reclaim: none was found
  directory.erase(std::vector<std::string>{prefix + "l0p1v0", "second string"});
}

TEST_F(CorruptRecordsTest, FirstLengthBeyondTheDataLetsOutOfRangeOut) {
  MutexHolder holder;
  const std::string name = nameFor({"abcd", ""}, holder.pid(), 4);
  plant(name, recordSegmentSize(4), "abcd", 9, 1);
  holder.lock(name);
  try {
    Endpoint::Impl::getDataPair(name, "");
    FAIL() << "no exception";
  } catch (const std::out_of_range& error) {
    EXPECT_STREQ(error.what(), "basic_string::substr: __pos (which is 9) > this->size() (which is 4)");
  }
  EXPECT_THROW(Endpoint::filterFromLocal(tag), std::out_of_range);
  EXPECT_TRUE(fileExists(path(name)));
}

TEST_F(CorruptRecordsTest, FirstLengthEqualToTheDataReadsAnEmptySecondString) {
  MutexHolder holder;
  const std::string name = nameFor({"abcd", ""}, holder.pid(), 4);
  plant(name, recordSegmentSize(4) + 100, "abcd", 4, 1);  // a larger segment is read at its named size
  holder.lock(name);
  EXPECT_EQ(Endpoint::filterFromLocal(tag), (Pairs{{"abcd", ""}}));
}

// Flag values other than 0 and 1 count as set: a held mutex reads live, a
// free one stale, and the stale record is cleared away.
TEST_F(CorruptRecordsTest, OddFlagValuesCountAsSet) {
  MutexHolder holder;
  const std::string held = nameFor({"held", "7"}, holder.pid(), 5);
  plant(held, recordSegmentSize(5), "held7", 4, 7);
  holder.lock(held);
  const std::string freed = nameFor({"free", "255"}, getpid(), 7);
  plant(freed, recordSegmentSize(7), "free255", 4, 255);
  EXPECT_EQ(Endpoint::filterFromLocal(tag), (Pairs{{"held", "7"}}));
  EXPECT_FALSE(fileExists(path(freed)));
  EXPECT_EQ(namesInDirectory(), std::vector<std::string>{held});
}

// The kind word pthread_mutex_init writes for the given attributes.
int kindOf(int type, int robust, int shared) {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_settype(&attributes, type);
  pthread_mutexattr_setrobust(&attributes, robust);
  pthread_mutexattr_setpshared(&attributes, shared);
  pthread_mutex_t mutex;
  pthread_mutex_init(&mutex, &attributes);
  const int kind = mutex.__data.__kind;
  pthread_mutex_destroy(&mutex);
  pthread_mutexattr_destroy(&attributes);
  return kind;
}

// Writes a mutex kind and lock word by hand.
void scribble(pthread_mutex_t* mutex, int kind, unsigned lockWord) {
  mutex->__data.__kind = kind;
  mutex->__data.__lock = static_cast<int>(lockWord);
}

// Mutex kinds no record is made with: glibc aborts on some (priority
// inheritance without the robust bit and an owner-died lock word, priority
// protection) and runs an instruction the processor may lack on another
// (lock elision). None is handed to pthread functions: the probe reports
// error 22, as for a destroyed mutex, and the read throws as designed.
TEST_F(CorruptRecordsTest, MutexOfAForeignKindIsReportedNotProbed) {
  const std::vector<std::pair<int, unsigned>> kinds{
      {32, 0x40000001}, {34, 0xc0000001}, {64, 0},   {66, 0x12345},
      {256, 0},         {-1, 0},          {0x7f, 0}, {0x6c6c6f6f, 0x2a2a2a2a}};
  for (const auto& [kind, lockWord] : kinds) {
    const DataPair data{"kind", std::to_string(kind)};
    const std::string name = nameFor(data, getpid(), 4 + data.second.size());
    plant(name, recordSegmentSize(4 + data.second.size()), data.first + data.second, 4, 1);
    const auto code = er::test::runInChild(
        [&](ChildProcess&) {
          SharedMemory segment = Endpoint::Impl::findSharedMemory(name, "");
          scribble(&headerIn(segment)->livenessMutex, kind, lockWord);
          LogCapture capture("agent::spf::endpointregistry=512");
          try {
            (void)Endpoint::filterFromLocal(tag);
            return 1;
          } catch (const std::runtime_error& error) {
            if (std::string(error.what()) != "System error: Endpoint::getState Mutex in undesired state (Return : 22)")
              return 2;
          }
          return capture.messages() ==
                         std::vector<std::string>{
                             "Endpoint::getState Mutex in undesired state. "
                             "(Mutex state 22)"}
                     ? 0
                     : 3;
        },
        30s);
    EXPECT_EQ(code, std::optional<int>(0)) << "kind " << kind;
    SharedMemory segment = Endpoint::Impl::findSharedMemory(name, "");
    ASSERT_TRUE(segment.isAttached());
    EXPECT_EQ(headerIn(segment)->livenessMutex.__data.__kind, kind);  // not repaired, not destroyed
    segment.markForDeletion();
    eraseDirectoryName(name, "");
  }
}

// Plain kinds with garbage lock words: the probe never blocks, and the lock
// word alone decides, whatever thread id it holds: a word that shows a holder
// not marked dead keeps the record live, one marked owner-dead or free does
// not.
TEST_F(CorruptRecordsTest, GarbageLockWordsNeverBlockTheProbe) {
  const pid_t gone = deadPid();
  const int ours = kindOf(PTHREAD_MUTEX_ERRORCHECK, PTHREAD_MUTEX_ROBUST, PTHREAD_PROCESS_SHARED);
  const int privateRobust = kindOf(PTHREAD_MUTEX_ERRORCHECK, PTHREAD_MUTEX_ROBUST, PTHREAD_PROCESS_PRIVATE);
  const int normal = kindOf(PTHREAD_MUTEX_NORMAL, PTHREAD_MUTEX_STALLED, PTHREAD_PROCESS_SHARED);
  const std::vector<std::pair<int, unsigned>> words{{ours, FUTEX_OWNER_DIED | static_cast<unsigned>(gone)},
                                                    {ours, static_cast<unsigned>(gone)},
                                                    {ours, 0x80000001u},
                                                    {ours, 0xffffffffu},
                                                    {normal, 2},
                                                    {privateRobust, FUTEX_TID_MASK}};
  std::vector<std::string> held;
  for (const auto& [kind, lockWord] : words) {
    const std::string second = std::to_string(lockWord);
    const std::string name = nameFor({"word", second}, gone, 4 + second.size());
    plant(name, recordSegmentSize(4 + second.size()), "word" + second, 4, 1);
    {
      SharedMemory segment = Endpoint::Impl::findSharedMemory(name, "");
      scribble(&headerIn(segment)->livenessMutex, kind, lockWord);
    }
    // Owner-died words, the only ones here a probe does not answer EBUSY to.
    const bool ownerDied = (lockWord & FUTEX_OWNER_DIED) != 0;
    if (!ownerDied) held.push_back(second);
    const auto code = er::test::runInChild(
        [&](ChildProcess&) {
          std::vector<std::string> listed;
          for (const auto& pair : Endpoint::filterFromLocal(tag)) listed.push_back(pair.second);
          std::vector<std::string> expected = held;
          std::sort(expected.begin(), expected.end());
          return listed == expected ? 0 : 1;
        },
        30s);
    EXPECT_EQ(code, std::optional<int>(0)) << kind << " " << std::hex << lockWord;
    EXPECT_EQ(fileExists(path(name)), !ownerDied) << kind << " " << std::hex << lockWord;
  }
  EXPECT_EQ(namesInDirectory().size(), held.size());
  for (const std::string& name : namesInDirectory()) {
    SharedMemory segment = Endpoint::Impl::findSharedMemory(name, "");
    if (segment.isAttached()) segment.markForDeletion();
    eraseDirectoryName(name, "");
  }
}

#if defined(ENDPOINTREGISTRY_TEST_HOOKS)

// The record a hook tears down when a reader is about to probe it.
std::atomic<RecordHeader*> tornDown{nullptr};

void tearDownOnProbe(const char* point) {
  if (std::strcmp(point, "record.probing") != 0) return;
  if (RecordHeader* header = tornDown.exchange(nullptr)) {
    std::atomic_ref<std::uint8_t>(header->livenessFlag).exchange(0);
    pthread_mutex_destroy(&header->livenessMutex);
  }
}

// A publisher's teardown (or another reader's reclaim) clears the flag and
// destroys the mutex between a reader's look at the flag and its probe: the
// reader classifies the record by its flag again instead of reporting the
// destroyed mutex.
TEST_F(CorruptRecordsTest, MutexDestroyedAfterTheFlagWasReadIsNoDamage) {
  const DataPair data{"torn", "down"};
  const std::string ours = nameFor(data, getpid(), 8);
  plant(ours, recordSegmentSize(8), "torndown", 4, 1);
  const std::string dead = nameFor({"dead", "owner"}, deadPid(), 9);
  plant(dead, recordSegmentSize(9), "deadowner", 4, 1);
  LogCapture capture("agent::spf::endpointregistry=all");
  testhooks::install(tearDownOnProbe);
  for (const std::string& name : {ours, dead}) {
    SharedMemory segment = Endpoint::Impl::findSharedMemory(name, "");
    tornDown = headerIn(segment);
    EXPECT_EQ(Endpoint::Impl::getDataPair(name, ""), DataPair{}) << name;
    EXPECT_EQ(tornDown.load(), nullptr);
  }
  testhooks::install(nullptr);
  EXPECT_TRUE(fileExists(path(ours)));   // its publisher exists: being torn down
  EXPECT_FALSE(fileExists(path(dead)));  // stale: cleared away
  EXPECT_EQ(namesInDirectory(), std::vector<std::string>{ours});
  EXPECT_TRUE(capture.messages().empty());
}

#endif

}  // namespace
}  // namespace agent::spf::endpointregistry
