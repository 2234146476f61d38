#include "src/index/snapshot_holder.h"

/// A library that a host loads at run time and that has a holder of its own.
namespace {

tolvar::SnapshotHolder<int> holder;

}  // namespace

extern "C" int plugin_read() {
  const auto guard = holder.read();
  return guard ? *guard : -1;
}

extern "C" void plugin_publish(int value) { holder.publish(std::make_unique<const int>(value)); }
