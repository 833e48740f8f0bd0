// Judges a build of the method: one line a case, and for a red one what was expected, what was seen
// and which text of the contract it is.
//
// usage: conformance [--library FILE] [--gtest_filter=PATTERN]
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>

#include "conformance/contract.h"

namespace {

std::string sentence(const char *name) {
    std::string text = name;
    for (char &c : text) {
        if (c == '_') c = ' ';
    }
    return text;
}

// "CallOrder" -> "call order"
std::string topic(const char *suite) {
    std::string text;
    for (const char *c = suite; *c != '\0'; ++c) {
        const bool upper = *c >= 'A' && *c <= 'Z';
        if (upper && c != suite) text += ' ';
        text += upper ? static_cast<char>(*c - 'A' + 'a') : *c;
    }
    return text;
}

std::string indented(const std::string &text) {
    constexpr size_t longest = 3000;
    const std::string margin = "           ";
    std::string result = margin;
    for (const char c : text.substr(0, longest)) {
        result += c;
        if (c == '\n') result += margin;
    }
    while (result.ends_with(' ') || result.ends_with('\n')) result.pop_back();
    return result + "\n";
}

// gtest begins what a check added with "Failed".
std::string without_heading(const std::string &message) {
    constexpr char heading[] = "Failed\n";
    return message.starts_with(heading) ? message.substr(strlen(heading)) : message;
}

bool worlds_end_well = true;

class Judgement : public testing::EmptyTestEventListener {
    void OnTestEnd(const testing::TestInfo &test) override {
        const testing::TestResult &result = *test.result();
        const std::string name = topic(test.test_suite_name()) + ": " + sentence(test.name());
        if (result.Skipped()) {
            printf("skip     %s\n", name.c_str());
            return;
        }
        printf("%s %s\n", result.Passed() ? "ok      " : "not ok  ", name.c_str());
        if (!result.Passed()) explain(test, result);
        fflush(stdout);
    }

    static void explain(const testing::TestInfo &test, const testing::TestResult &result) {
        for (int i = 0; i < result.total_part_count(); ++i) {
            const testing::TestPartResult &part = result.GetTestPartResult(i);
            if (part.failed()) fputs(indented(without_heading(part.message())).c_str(), stdout);
        }
        for (int i = 0; i < result.test_property_count(); ++i) {
            const testing::TestProperty &property = result.GetTestProperty(i);
            if (strcmp(property.key(), "contract") == 0)
                fputs(indented(std::string("contract: ") + property.value()).c_str(), stdout);
        }
        fputs(indented(std::string("alone:    ./dev conformance --only ") + test.test_suite_name() +
                       "." + test.name())
                  .c_str(),
              stdout);
    }

    void OnTestSuiteEnd(const testing::TestSuite &suite) override {
        try {
            conformance::close_worlds();
        } catch (const std::exception &left) {
            worlds_end_well = false;
            printf("not ok   %s: its world ends and leaves no loop device\n%s",
                   topic(suite.name()).c_str(), indented(left.what()).c_str());
        }
    }

    void OnTestProgramEnd(const testing::UnitTest &all) override {
        printf("\n%d cases: %d ok, %d not ok, %d skipped, %lld s\n", all.test_to_run_count(),
               all.successful_test_count(), all.failed_test_count(), all.skipped_test_count(),
               static_cast<long long>(all.elapsed_time() / 1000));
    }
};

}  // namespace

int main(int argc, char **argv) {
    testing::InitGoogleTest(&argc, argv);
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--library") != 0 || i + 1 == argc) {
            fprintf(stderr, "usage: conformance [--library FILE] [--gtest_filter=PATTERN]\n");
            return 2;
        }
        conformance::library = argv[++i];
    }
    if (!conformance::library.empty() && !std::filesystem::exists(conformance::library)) {
        fprintf(stderr, "conformance: there is no %s\n", conformance::library.c_str());
        return 2;
    }
    if (geteuid() != 0) {
        fprintf(stderr, "conformance: the worlds of the lab need root\n");
        return 77;
    }
    testing::TestEventListeners &listeners = testing::UnitTest::GetInstance()->listeners();
    delete listeners.Release(listeners.default_result_printer());
    listeners.Append(new Judgement);
    const int status = RUN_ALL_TESTS();
    return status == 0 && worlds_end_well ? 0 : 1;
}
