// The library that ships, loaded as the framework loads it.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "include/timefinder.h"
#include "tests/support/leaks.h"
#include "tests/support/private_root.h"

namespace {

const std::string library_path = TF_BINARY_DIR "/lib/libtimefinder_fim.so";
const std::string host_library_path = TF_BINARY_DIR "/lib/libtessera_host.so";
const std::string array_library = "/usr/symcli/shlib/libsymapi.so";

std::vector<std::string> lines;
void collect(const char *line) {
    lines.emplace_back(line);
}

// One loaded copy of the library with its entry points bound by name.
class Library {
  public:
    Library()
        : host_(dlopen(host_library_path.c_str(), RTLD_NOW | RTLD_GLOBAL)),
          handle_(dlopen(library_path.c_str(), RTLD_NOW | RTLD_LOCAL)) {
        if (handle_ == nullptr) {
            ADD_FAILURE() << dlerror();
            return;
        }
        bind(init, "TimeFinder_init");
        bind(query, "TimeFinder_query");
        bind(set_locale, "TimeFinder_set_locale");
        bind(set_logf, "TimeFinder_set_logf");
        bind(freeze, "TimeFinder_freeze");
        bind(freeze_commit, "TimeFinder_freeze_commit");
        bind(ctl, "TimeFinder_ctl");
        bind(thaw, "TimeFinder_thaw");
        bind(thaw_commit, "TimeFinder_thaw_commit");
        bind(ckpt, "TimeFinder_ckpt");
        bind(rebuild, "TimeFinder_rebuild");
        bind(volumes, "TimeFinder_volumes");
        init(&number, logmsg, errmsg);
        set_logf(&collect, 2);
        lines.clear();
    }
    ~Library() {
        if (handle_ != nullptr) dlclose(handle_);
        if (host_ != nullptr) dlclose(host_);
    }
    Library(const Library &) = delete;
    Library &operator=(const Library &) = delete;

    bool has(const char *name) const { return dlsym(handle_, name) != nullptr; }

    decltype(&TimeFinder_init) init{};
    decltype(&TimeFinder_query) query{};
    decltype(&TimeFinder_set_locale) set_locale{};
    decltype(&TimeFinder_set_logf) set_logf{};
    decltype(&TimeFinder_freeze) freeze{};
    decltype(&TimeFinder_freeze_commit) freeze_commit{};
    decltype(&TimeFinder_ctl) ctl{};
    decltype(&TimeFinder_thaw) thaw{};
    decltype(&TimeFinder_thaw_commit) thaw_commit{};
    decltype(&TimeFinder_ckpt) ckpt{};
    decltype(&TimeFinder_rebuild) rebuild{};
    decltype(&TimeFinder_volumes) volumes{};

    int32_t number = 0;
    char logmsg[TF_MESSAGE_SIZE] = {};
    char errmsg[TF_MESSAGE_SIZE] = {};

  private:
    template <class Function>
    void bind(Function &function, const char *name) {
        function = reinterpret_cast<Function>(dlsym(handle_, name));
        EXPECT_NE(function, nullptr) << name;
    }

    // The framework has the host product's library loaded before it loads a method.
    void *host_;
    void *handle_;
};

bool is_mapped() {
    return test::read_file("/proc/self/maps").find("libtimefinder_fim.so") != std::string::npos;
}

int32_t freeze(const Library &method, const char *config, hdef **handle, int32_t flag = 1) {
    int32_t nvols = -1;
    return method.freeze(config, "/etc/hostname", "/mnt/copy", nullptr, &nvols, flag, handle);
}

TEST(ShippedLibrary, it_loads_and_offers_its_entry_points) {
    const Library method;
    EXPECT_TRUE(method.has("emc_tf_SymPdevShow"));
    EXPECT_TRUE(method.has("qfm_fcp_parse"));
    EXPECT_TRUE(method.has("snmsg"));
    EXPECT_FALSE(method.has("print_err"));
    EXPECT_FALSE(method.has("DG_LIST"));
    EXPECT_FALSE(method.has("qfm_fcp_next"));
}

TEST(ShippedLibrary, it_is_really_gone_after_it_was_closed) {
    {
        const Library method;
        EXPECT_TRUE(is_mapped());
    }
    EXPECT_FALSE(is_mapped());
}

TEST(ShippedLibrary, loading_it_changes_nothing_in_the_host_process) {
    const Library method;
    EXPECT_EQ(test::resources_left(), "");
    EXPECT_TRUE(lines.empty());
}

TEST(ShippedLibrary, a_missing_array_library_fails_the_first_freeze_with_two_messages) {
    unlink(array_library.c_str());
    const Library method;
    hdef *handle = reinterpret_cast<hdef *>(0x1);
    EXPECT_EQ(freeze(method, nullptr, &handle), 11);
    EXPECT_EQ(method.number, 3);
    EXPECT_STREQ(method.errmsg, "init_tflib: Could not initialize with SymAPI");
    EXPECT_STREQ(method.logmsg, method.errmsg);
    // The handle output is left alone while the array library is not there.
    EXPECT_EQ(handle, reinterpret_cast<hdef *>(0x1));
    ASSERT_GE(lines.size(), 3U);
    EXPECT_EQ(lines[0], "Linking file /usr/symcli/shlib/libsymapi.so, 2.");
    EXPECT_EQ(lines[1].find("emc_tf__SymLink: Unable to open shared library " + array_library), 0U)
        << lines[1];
}

TEST(ShippedLibrary, a_file_that_is_no_library_fails_like_a_missing_one) {
    test::write_file(array_library, "not a library", 0755);
    const Library method;
    hdef *handle = nullptr;
    EXPECT_EQ(freeze(method, nullptr, &handle), 11);
    EXPECT_EQ(method.number, 3);
    EXPECT_STREQ(method.errmsg, "init_tflib: Could not initialize with SymAPI");
}

TEST(ShippedLibrary, the_array_library_is_tried_once_a_process) {
    unlink(array_library.c_str());
    const Library method;
    hdef *handle = nullptr;
    freeze(method, nullptr, &handle);
    lines.clear();
    // From now on the freeze goes past it and fails where the arguments are wrong.
    EXPECT_EQ(freeze(method, nullptr, &handle, 2), 11);
    EXPECT_EQ(method.number, 7);
    EXPECT_STREQ(method.errmsg, "TimeFinder_freeze: Invalid parameter value: flag=2");
    EXPECT_EQ(handle, nullptr);
}

TEST(ShippedLibrary, a_config_string_of_garbage_is_refused_and_leaves_nothing) {
    unlink(array_library.c_str());
    const Library method;
    hdef *handle = nullptr;
    freeze(method, nullptr, &handle);
    EXPECT_EQ(freeze(method, "\x01\xff=;%s%n,,", &handle), 11);
    EXPECT_EQ(method.number, 7);
    EXPECT_STREQ(method.errmsg,
                 "TimeFinder_freeze: Parse error 3 in config string: \x01\xff=;%s%n,,");
    EXPECT_EQ(handle, nullptr);
    EXPECT_EQ(test::resources_left(), "");
}

// A cycle of load, work and unload in one process: the heap must not grow with the cycles. The
// dynamic loader's own tables grow during the first ones, and the heap counts what it keeps for the
// next allocation as used; the smallest block lost in every cycle would be 24 bytes a cycle or
// more.
TEST(ShippedLibrary, cycles_of_load_work_and_unload_leave_nothing) {
    unlink(array_library.c_str());
    const auto cycle = [] {
        const Library method;
        hdef *handle = nullptr;
        freeze(method, nullptr, &handle);
        freeze(method, "keep_fi=1,plexname=P", &handle, 3);
        freeze(method, "plexname=Q,nonsense", &handle);
        lines.clear();
    };
    constexpr int cycles = 250;
    for (int i = 0; i < cycles; ++i) cycle();
    const size_t before = mallinfo2().uordblks;
    for (int i = 0; i < cycles; ++i) cycle();
    EXPECT_LT(mallinfo2().uordblks, before + cycles * 24);
    EXPECT_FALSE(is_mapped());
    EXPECT_EQ(test::resources_left(), "");
}

}  // namespace
