// tqdgclone: the host product's tool for copies of disk groups. It tells the devices of a group,
// writes down what a copy consists of, brings a copy up from the group's mirrors under a name of
// its own, and ends it volume by volume.
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "lab/tessera/clone_copy.h"

namespace {

constexpr int failed = 1, wrong_usage = 2;

void run(const tessera::CloneOptions &options) {
    switch (options.form) {
    case tessera::CloneForm::list:
        return tessera::list_devices(options);
    case tessera::CloneForm::describe:
        return tessera::describe_copy(options);
    case tessera::CloneForm::clone_here:
    case tessera::CloneForm::clone_described:
        return tessera::bring_copy_up(options);
    case tessera::CloneForm::clean_up:
        return tessera::clean_up(options);
    }
}

}  // namespace

int main(int argc, char **argv) {
    try {
        run(tessera::parse_clone_options(std::vector<std::string>(argv + 1, argv + argc)));
    } catch (const tessera::UsageError &error) {
        fprintf(stderr, "tqdgclone: %s\n%s", error.what(), tessera::usage_text);
        return wrong_usage;
    } catch (const std::exception &error) {
        fprintf(stderr, "tqdgclone: %s\n", error.what());
        return failed;
    }
    return fflush(stdout) == 0 ? 0 : failed;
}
