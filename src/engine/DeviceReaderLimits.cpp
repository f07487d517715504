#include "engine/DeviceReaderLimits.hpp"

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "corvane/FileSetHasher.hpp"

namespace corvane {
namespace {

// Readers for a solid-state device: enough requests in flight to keep an NVMe queue busy, few
// enough that files are not interleaved into small reads.
constexpr unsigned kSolidStateReaders = 4;

// The first character of a sysfs attribute file, or 0 when it cannot be read.
char firstCharacterOf(const std::string& path) {
  std::ifstream file(path);
  char c = 0;
  file.get(c);
  return file ? c : 0;
}

// Whether the disk whose sysfs folder is `disk` is driven by virtio_blk.
bool isVirtioDisk(const std::string& disk) {
  std::error_code error;
  const std::filesystem::path driver =
      std::filesystem::read_symlink(disk + "/device/driver", error);
  return !error && driver.filename() == "virtio_blk";
}

}  // namespace

unsigned suggestedReadersForDevice(std::uint64_t device) {
  const auto id = static_cast<dev_t>(device);
  // Devices without a block device behind them (tmpfs, overlay, NFS) have major number 0 or no
  // entry in /sys/dev/block: no limit of their own.
  if (::major(id) == 0) return 0;
  const std::string base =
      "/sys/dev/block/" + std::to_string(::major(id)) + ":" + std::to_string(::minor(id));
  // A partition has no queue of its own; its parent disk has.
  std::string disk = base;
  char rotational = firstCharacterOf(disk + "/queue/rotational");
  if (rotational == 0) {
    disk = base + "/..";
    rotational = firstCharacterOf(disk + "/queue/rotational");
  }
  // A virtual machine's virtio disk says "rotational" because the driver cannot know; what lies
  // behind it is a host's file or a network volume, which serve several requests at once (here
  // four readers read back copies 1.9 times as fast as one). Its flag is not taken as a spinning
  // disk.
  if (rotational == '1' && isVirtioDisk(disk)) return kSolidStateReaders;
  if (rotational == '1') return 1;
  if (rotational == '0') return kSolidStateReaders;
  return 0;
}

namespace engine {

DeviceReaderLimits::DeviceReaderLimits(unsigned fixedLimit, unsigned overall)
    : fixedLimit_(fixedLimit), overall_(overall == 0 ? 1 : overall) {}

DeviceReaderLimits::Device& DeviceReaderLimits::deviceLocked(std::uint64_t device) {
  auto [found, added] = devices_.try_emplace(device);
  if (added) {
    const unsigned limit = fixedLimit_ != 0 ? fixedLimit_ : suggestedReadersForDevice(device);
    found->second.limit = limit != 0 ? limit : overall_;
  }
  return found->second;
}

bool DeviceReaderLimits::acquire(std::uint64_t device, const std::stop_token& stop) {
  std::unique_lock lock(mutex_);
  Device& entry = deviceLocked(device);
  if (!freed_.wait(lock, stop, [&entry] { return entry.active < entry.limit; })) return false;
  // A free slot also ends the wait of a stopped run: it reads nothing more.
  if (stop.stop_requested()) return false;
  ++entry.active;
  return true;
}

void DeviceReaderLimits::release(std::uint64_t device) {
  {
    const std::lock_guard lock(mutex_);
    --deviceLocked(device).active;
  }
  freed_.notify_all();
}

}  // namespace engine
}  // namespace corvane
