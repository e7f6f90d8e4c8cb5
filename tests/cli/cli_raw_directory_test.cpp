// inspect, list and gc on a damaged directory: the bytes of shared memory are
// not trusted. A temporary user's own directory is written by hand with
// absurd descriptors, missing or short containers and garbage rows; the tool
// reports what it finds and never reads out of bounds.
#include <gtest/gtest.h>

#include <cstring>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include <agent/spf/sharedmemory/shared_memory.hpp>

#include "directory/named_string_array.hpp"
#include "isolated_user.hpp"
#include "support/child_process.hpp"
#include "support/system_accounts.hpp"
#include "tool_process.hpp"

namespace er::test {
namespace {

using agent::spf::endpointregistry::NamedStringArrayBase;
using agent::spf::sharedmemory::SharedMemory;
using nlohmann::json;

// A segment of the user's own scope with the given bytes, left in place.
bool writeSegment(const std::string& name, const std::vector<unsigned char>& bytes) {
  SharedMemory segment = SharedMemory::create(name, bytes.size(), "", {});
  if (!segment.isAttached()) return false;
  std::memcpy(segment.getPointer(), bytes.data(), bytes.size());
  segment.makePersistent();
  return true;
}

std::vector<unsigned char> baseBytes(unsigned initialized, unsigned activeSlot, std::uint64_t rowWidth,
                                     std::uint64_t rowCount, std::uint64_t containerNumber) {
  NamedStringArrayBase header{};
  header.initializerPid = 1;
  header.initialized = static_cast<std::uint8_t>(initialized);
  header.activeSlot = static_cast<std::uint8_t>(activeSlot);
  header.rowWidth[activeSlot & 1] = rowWidth;
  header.rowCount[activeSlot & 1] = rowCount;
  header.containerNumber[activeSlot & 1] = containerNumber;
  std::vector<unsigned char> bytes(sizeof header);
  std::memcpy(bytes.data(), &header, sizeof header);
  return bytes;
}

class CliRawDirectoryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!runningAsRoot()) GTEST_SKIP() << "needs root to run the tool as a temporary user";
    user = std::make_unique<IsolatedUser>();
  }

  // Writes the segments as the temporary user, in a child process.
  void write(const std::vector<std::pair<std::string, std::vector<unsigned char>>>& segments) {
    const Identity identity = user->identity();
    const std::optional<int> code = runInChild([&](ChildProcess&) {
      if (!becomeUser(identity.uid, identity.gid, identity.groups)) return 2;
      for (const auto& [name, bytes] : segments) {
        if (!writeSegment(name, bytes)) return 3;
      }
      return 0;
    });
    ASSERT_EQ(code, 0);
  }

  json inspect() {
    const ToolRun run = runTool({"inspect", "--json"}, user->identity());
    EXPECT_EQ(run.exitCode, 0) << run.err;
    return json::parse(run.out);
  }

  // list finds nothing in the damaged directory and does not fail; gc
  // rebuilds it (printing `gcOut`), after which inspect finds it whole.
  void expectListAndGcCope(const std::string& gcOut = gcLine(0, 0, 0, 0, 1)) {
    const ToolRun list = runTool({"list", "--exit-status"}, user->identity());
    EXPECT_EQ(list.exitCode, 3) << list.err;
    EXPECT_EQ(list.out, "FIRST  SECOND\n");
    const ToolRun gc = runTool({"gc"}, user->identity());
    EXPECT_EQ(gc.exitCode, 0) << gc.err;
    EXPECT_EQ(gc.out, gcOut);
    const json after = inspect();
    EXPECT_EQ(after["problem"], nullptr) << after;
    EXPECT_EQ(after["damage"], json::array()) << after;
    EXPECT_EQ(runTool({"gc"}, user->identity()).out, gcLine(0));
  }

  std::unique_ptr<IsolatedUser> user;
};

TEST_F(CliRawDirectoryTest, AbsurdDescriptorIsReported) {
  // rowCount x rowWidth overflows.
  write({{"qzEndpointRegistryv0", baseBytes(1, 2, std::uint64_t{1} << 31, std::uint64_t{1} << 33, 5)}});
  const json parsed = inspect();
  EXPECT_EQ(parsed["base"]["activeSlot"], 2);
  EXPECT_EQ(parsed["base"]["slots"][0]["rowCount"], std::uint64_t{1} << 33);
  EXPECT_EQ(parsed["problem"], "the active descriptor is out of bounds");
  EXPECT_EQ(parsed["damage"],
            json::array({"activeSlot holds 2", "the mutex is of kind 0, not the one a directory is made with"}));
  EXPECT_EQ(parsed["container"], json::parse(R"({"name": "qzEndpointRegistryv05", "found": false,
                                                 "usedRows": 0, "freeRows": 0})"));
  EXPECT_EQ(parsed["rows"], json::array());
  expectListAndGcCope();
}

TEST_F(CliRawDirectoryTest, MissingContainerIsReported) {
  write({{"qzEndpointRegistryv0", baseBytes(1, 1, 8, 10, 7)}});
  const json parsed = inspect();
  EXPECT_EQ(parsed["problem"], "the active container is missing or smaller than described");
  EXPECT_EQ(parsed["container"]["name"], "qzEndpointRegistryv07");
  EXPECT_EQ(parsed["container"]["found"], false);
  expectListAndGcCope();
}

TEST_F(CliRawDirectoryTest, ContainerShorterThanDescribedIsNotRead) {
  write({{"qzEndpointRegistryv0", baseBytes(1, 0, 8, 10, 3)},
         {"qzEndpointRegistryv03", std::vector<unsigned char>(20, 0x01)}});
  const json parsed = inspect();
  EXPECT_EQ(parsed["problem"], "the active container is missing or smaller than described");
  EXPECT_EQ(parsed["rows"], json::array());
  // The base (its mutex zero) is replaced, the short container left over.
  expectListAndGcCope(gcLine(0, 0, 0, 1, 1));
}

TEST_F(CliRawDirectoryTest, UninitialisedBaseIsReported) {
  write({{"qzEndpointRegistryv0", baseBytes(0, 1, 8, 10, 3)}});
  const json parsed = inspect();
  EXPECT_EQ(parsed["problem"], "the base is not initialised");
  EXPECT_FALSE(parsed.contains("container"));
  const ToolRun text = runTool({"inspect"}, user->identity());
  EXPECT_NE(text.out.find("\nproblem: the base is not initialised\n"), std::string::npos) << text.out;
  expectListAndGcCope();
}

TEST_F(CliRawDirectoryTest, GarbageRowsAreReadWithinTheirBounds) {
  // Four rows of 8 bytes: a negative count byte and no terminator, a record
  // name that names no segment, bytes that are not UTF-8, a free row.
  std::vector<unsigned char> container(8 + 4 * 8 + 1, 0);
  const unsigned char rows[4][8] = {{0x85, 'A', 'B', 'C', 'D', 'E', 'F', 'G'},
                                    {1, 'q', 'z', 'E', 'R', 'a', 'b', 0},
                                    {1, 0xff, 0xfe, 0, 0, 0, 0, 0},
                                    {0, 'x', 'x', 'x', 0, 0, 0, 0}};
  std::memcpy(container.data() + 8, rows, sizeof rows);
  write({{"qzEndpointRegistryv0", baseBytes(1, 1, 8, 4, 9)}, {"qzEndpointRegistryv09", container}});

  const json parsed = inspect();
  EXPECT_EQ(parsed["problem"], nullptr);
  EXPECT_EQ(parsed["damage"], json::array({"the mutex is of kind 0, not the one a directory is made with",
                                           "2 used row(s) hold no record name"}));
  EXPECT_EQ(parsed["container"], json::parse(R"({"name": "qzEndpointRegistryv09", "found": true,
                                                 "usedRows": 3, "freeRows": 1})"));
  EXPECT_EQ(parsed["rows"], json::parse(R"([
    {"row": 0, "count": -123, "strings": ["ABCDEFG"], "state": "Not a record"},
    {"row": 1, "count": 1, "strings": ["qzERab"], "state": "Missing", "pid": 0},
    {"row": 2, "count": 1, "strings": ["\\xff\\xfe"], "escaped": true, "state": "Not a record"}
  ])"));
  const ToolRun text = runTool({"inspect"}, user->identity());
  EXPECT_EQ(text.out.find('\xff'), std::string::npos);
  // The base (its mutex zero) is replaced, its container left over.
  expectListAndGcCope(gcLine(0, 0, 0, 1, 1));
}

}  // namespace
}  // namespace er::test
