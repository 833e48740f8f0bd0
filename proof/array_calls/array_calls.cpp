// The row "array calls": in every scenario every call of the array fails in turn, or lies.
#include <cstdio>

#include "proof/kit/faulted_run.h"
#include "proof/kit/row.h"

int main(int argc, char **argv) {
    using namespace proof;
    const Scenario &one = scenario(argc > 1 ? argv[1] : "file_system");
    Bench bench(one, "array");
    for (size_t i = 0; i < one.processes.size(); ++i) {
        for (const Site &site : bench.sites(i)) {
            printf("%s %s %zu\n", one.processes[i].name.c_str(), site.name.c_str(), site.calls);
        }
    }
    printf("%f s\n", bench.seconds());
    if (argc > 2) return 0;
    for (const Site &site : bench.sites(0)) {
        const Outcome outcome = bench.run(0, {"array", site, "fail", 114, "-", 1, "once"});
        printf("%s: %s\n", site.name.c_str(), outcome.line().c_str());
        for (const std::string &why : outcome.wrong) printf("  WRONG %s\n", why.c_str());
    }
}
