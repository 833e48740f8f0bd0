#include <cstdio>
#include <exception>

#include "fimctl/command_line.h"
#include "fimctl/failure.h"

int main(int argc, char **argv) {
    try {
        return fimctl::run_command_line(argc, argv);
    } catch (const std::exception &error) {
        fprintf(stderr, "fimctl: internal error: %s\n", error.what());
        return static_cast<int>(fimctl::ExitCode::left);
    }
}
