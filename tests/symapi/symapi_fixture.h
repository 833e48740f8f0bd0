// A process that has neither a library nor a session, and a real library to load.
#pragma once

#include <dlfcn.h>

#include <filesystem>

#include "method/interface.h"
#include "symapi/symapi_loader.h"
#include "symapi/symapi_session.h"
#include "symapi/symapi_wrappers.h"
#include "tests/support/method_fixture.h"
#include "tests/symapi/fake_library/fake_library.h"

namespace test {

constexpr char fake_library_path[] = TF_BINARY_DIR "/lib/fake_symapi.so";
constexpr char library_without_version[] =
    TF_BINARY_DIR "/lib/fake_symapi_without_SymApiVersion.so";
constexpr char library_without_patch[] = TF_BINARY_DIR "/lib/fake_symapi_without_SymApiPatch.so";
constexpr char installed_library[] = "/usr/symcli/shlib/libsymapi.so";
constexpr char database_folder[] = "/var/symapi/db";
constexpr char database[] = "/var/symapi/db/symapi_db.bin";

class Symapi : public Method {
  protected:
    Symapi() {
        sH = -1;
        emc_tf_DSO_open = 0;
        emc_tf_SymVersion = 0;
        emc_clients = client_count = 0;
        std::filesystem::remove_all("/usr/symcli");
        std::filesystem::remove_all("/var/symapi");
    }
    ~Symapi() override { emc_tf_closeSymapiLibrary(); }

    // Puts a fake library where the method looks for one and keeps hold of it, so that its data
    // can be told what to answer before the method loads it.
    FakeLibrary &install_library(const char *library = fake_library_path) {
        make_folders(std::filesystem::path(installed_library).parent_path());
        std::filesystem::copy_file(library, installed_library);
        held_ = dlopen(installed_library, RTLD_LAZY);
        EXPECT_NE(held_, nullptr) << dlerror();
        return *static_cast<FakeLibrary *>(dlsym(held_, "fake_library"));
    }
    void let_go_of_library() {
        if (held_ != nullptr) dlclose(held_);
        held_ = nullptr;
    }
    static bool is_loaded(const char *path) {
        void *const handle = dlopen(path, RTLD_LAZY | RTLD_NOLOAD);
        if (handle != nullptr) dlclose(handle);
        return handle != nullptr;
    }
    void TearDown() override { let_go_of_library(); }

  private:
    void *held_ = nullptr;
};

}  // namespace test
