#include <dlfcn.h>
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/temp_dir.h"

namespace tolvar_test {
namespace {

/// One loaded copy of the plug-in.
struct Plugin {
  explicit Plugin(const std::string& path) : handle(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL)) {
    if (handle == nullptr) throw std::runtime_error(dlerror());
    read = reinterpret_cast<int (*)()>(dlsym(handle, "plugin_read"));
    publish = reinterpret_cast<void (*)(int)>(dlsym(handle, "plugin_publish"));
    if (read == nullptr || publish == nullptr) throw std::runtime_error("symbols are missing");
  }
  void close() { EXPECT_EQ(dlclose(handle), 0); }

  void* handle;
  int (*read)();
  void (*publish)(int);
};

TEST(SnapshotPlugin, ThreadsFromBeforeAndAfterLoadingMayRead) {
  std::atomic<Plugin*> loaded{nullptr};
  std::atomic<int> early{-2};
  std::thread before([&] {
    while (loaded == nullptr) std::this_thread::yield();
    early = loaded.load()->read();
  });
  Plugin plugin(TOLVAR_TEST_PLUGIN);
  EXPECT_EQ(plugin.read(), -1);
  plugin.publish(5);
  loaded = &plugin;
  before.join();
  EXPECT_EQ(early, 5);
  for (int i = 6; i < 20; ++i) {
    std::thread([&] { EXPECT_EQ(plugin.read(), i - 1); }).join();
    plugin.publish(i);
  }
  EXPECT_EQ(plugin.read(), 19);
  plugin.close();
}

TEST(SnapshotPlugin, AThreadMayEndAfterTheLibraryWasClosed) {
  Plugin plugin(TOLVAR_TEST_PLUGIN);
  plugin.publish(1);
  std::atomic<bool> hasRead{false};
  std::atomic<bool> closed{false};
  std::thread reader([&] {
    EXPECT_EQ(plugin.read(), 1);
    hasRead = true;
    while (!closed) std::this_thread::yield();
  });
  while (!hasRead) std::this_thread::yield();
  plugin.close();
  closed = true;
  reader.join();
}

TEST(SnapshotPlugin, ManyCopiesFitIntoOneProcess) {
  const TempDir directory;
  std::vector<Plugin> plugins;
  for (int i = 0; i < 24; ++i) {
    const std::string copy = directory.file("plugin" + std::to_string(i) + ".so");
    std::filesystem::copy_file(TOLVAR_TEST_PLUGIN, copy);
    plugins.emplace_back(copy);
    plugins.back().publish(i);
  }
  std::thread([&] {
    for (int i = 0; i < 24; ++i) EXPECT_EQ(plugins[static_cast<std::size_t>(i)].read(), i);
  }).join();
  for (Plugin& plugin : plugins) plugin.close();
}

}  // namespace
}  // namespace tolvar_test
