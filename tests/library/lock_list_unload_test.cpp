// The lock list of the host utilities lives as long as the library and no longer.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <string>

#include "snap/snap.h"

namespace {

// Loads the library, enters a hundred file systems in its list, unloads it.
void fill_a_list_and_unload() {
    // The framework has the host product's library loaded before it loads a method.
    void *host = dlopen(TF_BINARY_DIR "/lib/libtessera_host.so", RTLD_NOW | RTLD_GLOBAL);
    ASSERT_NE(host, nullptr) << dlerror();
    void *library = dlopen(TF_BINARY_DIR "/lib/libtimefinder_fim.so", RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
    const auto add =
        reinterpret_cast<decltype(&add_to_lock_list)>(dlsym(library, "add_to_lock_list"));
    ASSERT_NE(add, nullptr);
    FS_LOCK_REC *first = nullptr;
    int32_t count = 0;
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(add(("/data" + std::to_string(i)).c_str(), "ufs", &first, &count), 0);
    }
    EXPECT_EQ(count, 100) << "the list of an earlier cycle is still there";
    dlclose(library);
    dlclose(host);
}

TEST(ShippedLibrary, the_lock_list_is_given_back_when_it_is_unloaded) {
    fill_a_list_and_unload();
    const size_t before = mallinfo2().uordblks;
    for (int i = 0; i < 10; ++i) fill_a_list_and_unload();
    // Less than one of the ten lists; the loader's own tables come and go.
    EXPECT_LT(mallinfo2().uordblks, before + 100 * sizeof(FS_LOCK_REC));
}

}  // namespace
