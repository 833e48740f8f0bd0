// The main program of every test: a private root, and a red test for whatever a case leaves behind.
#include <gtest/gtest.h>

#include <cstring>

#include "tests/support/allocation_faults.h"
#include "tests/support/leaks.h"
#include "tests/support/private_root.h"

namespace {

class LeakListener : public testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo &) override { test::remember_resources(); }
    void OnTestEnd(const testing::TestInfo &info) override {
        test::no_more_faults();
        const std::string left = test::resources_left();
        if (!left.empty()) {
            ADD_FAILURE() << info.test_suite_name() << "." << info.name() << " left behind:\n"
                          << left;
        }
    }
};

bool only_lists(int argc, char **argv) {
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--gtest_list_tests") == 0) return true;
    }
    return false;
}

}  // namespace

int main(int argc, char **argv) {
    if (!only_lists(argc, argv)) test::enter_private_root();
    testing::InitGoogleTest(&argc, argv);
    testing::UnitTest::GetInstance()->listeners().Append(new LeakListener);
    return RUN_ALL_TESTS();
}
