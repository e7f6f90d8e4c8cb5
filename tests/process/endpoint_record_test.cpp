// Endpoint records: byte layout, states, reading back and reclaiming.
#include <gtest/gtest.h>

#include <unistd.h>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>

#include "diagnostics/diagnostics.hpp"
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

std::uint64_t readU64(const std::vector<unsigned char>& bytes, std::size_t offset) {
  std::uint64_t value = 0;
  std::memcpy(&value, bytes.data() + offset, sizeof value);
  return value;
}

// A pid that belonged to a process which has ended.
pid_t deadPid() {
  ChildProcess child([](ChildProcess&) { return 0; });
  pid_t pid = child.pid();
  child.wait();
  return pid;
}

// Plants a record segment by hand: data written, flag and mutex as given.
SharedMemory plantRecord(const std::string& name, const DataPair& data, std::uint8_t flag) {
  const std::string joined = data.first + data.second;
  SharedMemory segment = SharedMemory::create(name, recordSegmentSize(joined.size()), "", {});
  auto* header = static_cast<RecordHeader*>(segment.getPointer());
  std::memcpy(static_cast<char*>(segment.getPointer()) + recordDataOffset, joined.data(), joined.size());
  header->firstLength = data.first.size();
  PThreadRobustLockGuard::initializeMutex(&header->livenessMutex);
  header->livenessFlag = flag;
  segment.makePersistent();
  return segment;
}

class EndpointRecordTest : public ::testing::Test {
 protected:
  std::string tag = uniqueName("recordTag");
  RegistryCleanup cleanup{tag};
};

TEST_F(EndpointRecordTest, SegmentHoldsTheDocumentedBytes) {
  const DataPair data{"datA", "datB"};
  Endpoint::Impl record(data, tag, "");
  const std::string name = recordName(data, tag, 0, "");
  auto bytes = readBytes(userScope() + "/" + name);
  ASSERT_EQ(bytes.size(), 8u + 57u);
  EXPECT_EQ(bytes[0], 1);  // livenessFlag
  for (std::size_t i = 1; i < 8; ++i) EXPECT_EQ(bytes[i], 0) << i;
  EXPECT_EQ(readU64(bytes, 48), 4u);
  EXPECT_EQ(std::string(bytes.begin() + 56, bytes.begin() + 64), "datAdatB");
  EXPECT_EQ(bytes[64], 0);  // reserved
  EXPECT_EQ(record.getGroupTag(), tag);
  EXPECT_EQ(record.getTrustee(), "");
  EXPECT_EQ(record.getDataPair(), data);
  EXPECT_EQ(listDirectoryNames(groupPrefix(tag), ""), std::vector<std::string>{name});
}

TEST_F(EndpointRecordTest, EmptyFirstOrSecondStringRoundTrips) {
  Endpoint::Impl firstEmpty({"", "second"}, tag, "");
  Endpoint::Impl secondEmpty({"first", ""}, tag, "");
  auto a = readBytes(userScope() + "/" + recordName({"", "second"}, tag, 0, ""));
  auto b = readBytes(userScope() + "/" + recordName({"first", ""}, tag, 0, ""));
  ASSERT_EQ(a.size(), 6u + 57u);
  ASSERT_EQ(b.size(), 5u + 57u);
  EXPECT_EQ(readU64(a, 48), 0u);
  EXPECT_EQ(readU64(b, 48), 5u);
  EXPECT_EQ(firstEmpty.getDataPair(), (DataPair{"", "second"}));
  EXPECT_EQ(secondEmpty.getDataPair(), (DataPair{"first", ""}));
}

TEST_F(EndpointRecordTest, DestructionWithdrawsNameAndSegment) {
  const DataPair data{"gone", "soon"};
  const std::string name = recordName(data, tag, 0, "");
  { Endpoint::Impl record(data, tag, ""); }
  EXPECT_FALSE(fileExists(userScope() + "/" + name));
  EXPECT_TRUE(listDirectoryNames(groupPrefix(tag), "").empty());
  EXPECT_EQ(Endpoint::Impl::getDataPair(name, ""), DataPair{});
}

TEST_F(EndpointRecordTest, NameWithNonZeroFormatOpensNothing) {
  const std::string name = synonymPrefix({"v", "1"}, tag) + "l2p" + std::to_string(getpid()) + "v1";
  SharedMemory planted = plantRecord(name, {"v", "1"}, 1);
  LogCapture capture("agent::spf::sharedmemory=all;agent::spf::endpointregistry=all");
  EXPECT_EQ(Endpoint::Impl::getDataPair(name, ""), DataPair{});
  EXPECT_TRUE(capture.messages().empty());
  EXPECT_TRUE(fileExists(userScope() + "/" + name));
  planted.markForDeletion();
}

TEST_F(EndpointRecordTest, UnattachedSegmentIsTransient) {
  SharedMemory none;
  EXPECT_EQ(Endpoint::Impl::getState(none, static_cast<unsigned long>(getpid())), Transient);
  EXPECT_EQ(Endpoint::Impl::getState(none, static_cast<unsigned long>(deadPid())), Transient);
}

TEST_F(EndpointRecordTest, UnflaggedRecordIsTransientWhileItsProcessExists) {
  const DataPair data{"flag", "zero"};
  const std::string name = recordName(data, tag, 0, "");
  SharedMemory planted = plantRecord(name, data, 0);
  DirectoryEntry entry(name, "");
  EXPECT_EQ(Endpoint::Impl::getState(planted, static_cast<unsigned long>(getpid())), Transient);
  EXPECT_EQ(Endpoint::Impl::countSynonymEndpoints(data, tag), 1u);
  EXPECT_EQ(Endpoint::Impl::getDataPair(name, ""), DataPair{});
  EXPECT_TRUE(fileExists(userScope() + "/" + name));
  // While its creator still claims it, the record is not stale even when its
  // pid names no process here (a publisher in another pid namespace), both
  // while being created and after; once the creator has let go of it, the
  // pid decides.
  EXPECT_EQ(Endpoint::Impl::getState(planted, static_cast<unsigned long>(deadPid())), Transient);
  planted.endCreation();
  EXPECT_EQ(Endpoint::Impl::getState(planted, static_cast<unsigned long>(deadPid())), Transient);
  planted = SharedMemory();
  SharedMemory found = Endpoint::Impl::findSharedMemory(name, "");
  ASSERT_TRUE(found.isAttached());
  EXPECT_EQ(Endpoint::Impl::getState(found, static_cast<unsigned long>(getpid())), Transient);
  EXPECT_EQ(Endpoint::Impl::getState(found, static_cast<unsigned long>(deadPid())), Stale);
  found.markForDeletion();
}

TEST_F(EndpointRecordTest, FreeMutexWithFlagSetIsStaleAndReclaimed) {
  const DataPair data{"free", "mutex"};
  const std::string name = recordName(data, tag, 0, "");
  SharedMemory planted = plantRecord(name, data, 1);
  NamedStringArray(registryDirectoryName, 0, "").insert(name);
  EXPECT_EQ(Endpoint::Impl::getState(planted, static_cast<unsigned long>(getpid())), Stale);
  EXPECT_EQ(Endpoint::Impl::countSynonymEndpoints(data, tag), 0u);
  EXPECT_EQ(Endpoint::Impl::getDataPair(name, ""), DataPair{});
  EXPECT_EQ(static_cast<RecordHeader*>(planted.getPointer())->livenessFlag, 0);
  EXPECT_FALSE(fileExists(userScope() + "/" + name));
  EXPECT_TRUE(listDirectoryNames(groupPrefix(tag), "").empty());
}

TEST_F(EndpointRecordTest, MutexInUndesiredStateIsLoggedAndThrown) {
  const DataPair data{"bad", "mutex"};
  const std::string name = recordName(data, tag, 0, "");
  SharedMemory planted = plantRecord(name, data, 1);
  // An unknown mutex kind makes pthread_mutex_trylock answer EINVAL.
  int kind = 0x7f;
  std::memcpy(reinterpret_cast<char*>(&static_cast<RecordHeader*>(planted.getPointer())->livenessMutex) + 16, &kind,
              sizeof kind);
  LogCapture capture("agent::spf::endpointregistry=512");
  try {
    Endpoint::Impl::getState(planted, static_cast<unsigned long>(getpid()));
    FAIL() << "no exception";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "System error: Endpoint::getState Mutex in undesired state (Return : 22)");
  }
  EXPECT_EQ(capture.messages(),
            std::vector<std::string>{"Endpoint::getState Mutex in undesired state. (Mutex state 22)"});
  planted.markForDeletion();
}

TEST_F(EndpointRecordTest, StaleSegmentOfTheSameNameIsReclaimedBeforeCreation) {
  // A crashed earlier process with this pid left a record of the same name.
  const DataPair data{"pid", "reuse"};
  const std::string name = recordName(data, tag, 0, "");
  { SharedMemory planted = plantRecord(name, data, 1); }
  Endpoint::Impl record(data, tag, "");
  EXPECT_EQ(record.getDataPair(), data);
}

TEST_F(EndpointRecordTest, LiveSegmentOfTheSameNameMakesCreationFail) {
  const DataPair data{"live", "twin"};
  Endpoint::Impl first(data, tag, "");
  LogCapture capture("agent::spf::endpointregistry=512");
  try {
    Endpoint::Impl second(data, tag, "");
    FAIL() << "no exception";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "System error: Endpoint::createSharedMemory: Failed to create shared memory");
  }
  EXPECT_EQ(capture.messages(),
            std::vector<std::string>{"Endpoint::createSharedMemory Failed to create the shared memory"});
  EXPECT_EQ(first.getDataPair(), data);
}

// Another process holds a live record under exactly the name that this
// process gives its record (as a process of another pid namespace with the
// same pid would): creating the record fails with both texts, and the other
// record is left as it was, still locked.
TEST_F(EndpointRecordTest, LiveSegmentOfAnotherProcessUnderThisProcessesNameMakesCreationFail) {
  const DataPair data{"taken", "name"};
  const std::string name = recordName(data, tag, 0, "");  // this process's pid
  ChildProcess holder([&](ChildProcess& self) {
    SharedMemory segment = plantRecord(name, data, 0);
    auto* header = static_cast<RecordHeader*>(segment.getPointer());
    PThreadRobustLockGuard lock(&header->livenessMutex, LockTerm::Lasting);
    std::atomic_ref<std::uint8_t>(header->livenessFlag).store(1);
    segment.endCreation();
    self.tellParent("held");
    if (self.readFromParent(std::chrono::seconds(60)) != "check") return 2;
    if (header->livenessFlag != 1) return 3;
    if (PThreadRobustLockGuard::getMutexState(&header->livenessMutex) != EBUSY) return 4;
    segment.markForDeletion();
    return 0;
  });
  ASSERT_EQ(holder.readFromChild(), "held");
  const std::string path = userScope() + "/" + name;
  const std::vector<unsigned char> before = readBytes(path);
  LogCapture capture("agent::spf::endpointregistry=512");
  try {
    Endpoint endpoint(data, tag);
    FAIL() << "no exception";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "System error: Endpoint::createSharedMemory: Failed to create shared memory");
  }
  EXPECT_EQ(capture.messages(),
            std::vector<std::string>{"Endpoint::createSharedMemory Failed to create the shared memory"});
  EXPECT_EQ(readBytes(path), before);
  holder.tellChild("check");
  EXPECT_EQ(holder.wait(), 0);
  EXPECT_TRUE(listDirectoryNames(groupPrefix(tag), "").empty());
}

TEST_F(EndpointRecordTest, KilledPublishersRecordIsReclaimedByTheNextRead) {
  const DataPair data{"killed", "publisher"};
  ChildProcess child([&](ChildProcess& self) {
    Endpoint::Impl record(data, tag, "");
    self.tellParent(recordName(data, tag, 0, ""));
    self.readFromParent(std::chrono::seconds(60));
    return 0;
  });
  auto name = child.readFromChild();
  ASSERT_TRUE(name);
  EXPECT_EQ(Endpoint::Impl::getDataPair(*name, ""), data);
  EXPECT_EQ(Endpoint::Impl::countSynonymEndpoints(data, tag), 1u);
  child.kill();
  EXPECT_EQ(child.wait(), 128 + 9);
  EXPECT_EQ(Endpoint::Impl::countSynonymEndpoints(data, tag), 0u);
  EXPECT_TRUE(fileExists(userScope() + "/" + *name));  // counting does not reclaim
  EXPECT_EQ(Endpoint::Impl::getDataPair(*name, ""), DataPair{});
  EXPECT_FALSE(fileExists(userScope() + "/" + *name));
  EXPECT_TRUE(listDirectoryNames(groupPrefix(tag), "").empty());
}

TEST_F(EndpointRecordTest, FilterNamesKeepsTheGroupsNamesInDirectoryOrder) {
  Endpoint::Impl a({"a", "1"}, tag, "");
  Endpoint::Impl b({"b", "2"}, tag, "");
  EXPECT_EQ(Endpoint::Impl::filterNames(tag, ""),
            (std::vector<std::string>{recordName({"a", "1"}, tag, 0, ""), recordName({"b", "2"}, tag, 0, "")}));
  EXPECT_TRUE(Endpoint::Impl::filterNames(uniqueName("noSuchTag"), "").empty());
}

}  // namespace
}  // namespace agent::spf::endpointregistry
