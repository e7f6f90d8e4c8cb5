// Floors of the registry's work, measured with bare system calls: what one
// record costs a reader at the least (open, map, read, unmap and close one
// existing segment of a record's size) and a publisher at the least (create,
// size, map, write, unmap, close and remove one). The floor of a cold
// publication adds what a process that holds no other endpoint needs for
// one besides: a thread started and joined, and a robust, process-shared
// mutex in the segment set up, locked and unlocked on that thread.
//
// The segments live directly in /dev/shm, outside the registry's folders,
// under names of this process; every one made is removed.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <thread>

#include "bench_support.hpp"

namespace {

using erbench::Plan;
using erbench::Samples;

// A record of 13 data bytes (a typical address and port) is 70 bytes long.
constexpr std::size_t segmentSize = 70;

std::string segmentPath(const std::string& name) { return "/dev/shm/" + name; }

void openMapReadClose(benchmark::State& state) {
  const std::string path = segmentPath(erbench::uniqueName("erBenchFloor"));
  {
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
    const bool sized = fd >= 0 && ftruncate(fd, segmentSize) == 0;
    if (fd >= 0) close(fd);
    if (!sized) {
      unlink(path.c_str());
      throw std::runtime_error("cannot make the floor segment");
    }
  }
  Samples samples;
  unsigned sum = 0;
  bool failed = false;
  for (auto _ : state) {
    samples.time(state, [&] {
      const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW);
      void* address = fd < 0 ? MAP_FAILED : mmap(nullptr, segmentSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
      if (address == MAP_FAILED) {
        failed = true;
      } else {
        sum += *static_cast<volatile unsigned char*>(address);
        munmap(address, segmentSize);
      }
      if (fd >= 0) close(fd);
    });
    if (failed) break;
  }
  benchmark::DoNotOptimize(sum);
  unlink(path.c_str());
  if (failed) state.SkipWithError("the floor segment could not be opened and mapped");
  samples.report(state);
}

void createRemove(benchmark::State& state) {
  const std::string path = segmentPath(erbench::uniqueName("erBenchFloor"));
  Samples samples;
  bool failed = false;
  for (auto _ : state) {
    samples.time(state, [&] {
      const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
      void* address = fd < 0 || ftruncate(fd, segmentSize) != 0
                          ? MAP_FAILED
                          : mmap(nullptr, segmentSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
      if (address == MAP_FAILED) {
        failed = true;
      } else {
        *static_cast<volatile unsigned char*>(address) = 1;
        munmap(address, segmentSize);
      }
      if (fd >= 0) close(fd);
      unlink(path.c_str());
    });
    if (failed) break;
  }
  if (failed) state.SkipWithError("the floor segment could not be made and mapped");
  samples.report(state);
}

void coldPublication(benchmark::State& state) {
  const std::string path = segmentPath(erbench::uniqueName("erBenchFloor"));
  Samples samples;
  bool failed = false;
  for (auto _ : state) {
    samples.time(state, [&] {
      std::thread worker([&] {
        const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
        if (fd < 0 || ftruncate(fd, segmentSize) != 0) {
          failed = true;
          if (fd >= 0) close(fd);
          unlink(path.c_str());
          return;
        }
        void* address = mmap(nullptr, segmentSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        if (address == MAP_FAILED) {
          failed = true;
          close(fd);
          unlink(path.c_str());
          return;
        }
        auto* mutex = reinterpret_cast<pthread_mutex_t*>(static_cast<char*>(address) + 8);
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
        pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
        pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
        pthread_mutex_init(mutex, &attributes);
        pthread_mutexattr_destroy(&attributes);
        failed |= pthread_mutex_lock(mutex) != 0;
        failed |= pthread_mutex_unlock(mutex) != 0;
        pthread_mutex_destroy(mutex);
        munmap(address, segmentSize);
        close(fd);
        unlink(path.c_str());
      });
      worker.join();
    });
    if (failed) break;
  }
  if (failed) state.SkipWithError("the floor segment or its mutex failed");
  samples.report(state);
}

void registerFigures(const Plan& plan) {
  erbench::figure("floor/open+map+read+unmap+close", openMapReadClose, plan.iterations(20000));
  erbench::figure("floor/create+remove", createRemove, plan.iterations(10000));
  erbench::figure("floor/thread+create+lock+remove", coldPublication, plan.iterations(2000));
}

}  // namespace

int main(int argc, char** argv) { return erbench::runBenchmarks(argc, argv, registerFigures); }
