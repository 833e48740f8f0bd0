// tfarray: the administrator's command of the simulated array.
#include <CLI/CLI.hpp>
#include <functional>
#include <iostream>

#include "lab/array/admin/commands.h"
#include "lab/array/admin/link.h"
#include "lab/array/admin/scenario.h"

namespace {

// Exit codes: 0 done, 1 the array refused, 2 wrong usage or scenario, 3 no array answers.
constexpr int refused = 1, usage = 2, no_array = 3;

int run(const std::string &socket, const std::function<int(lab::Link *)> &action) {
    try {
        lab::Link link(socket);
        return action(&link);
    } catch (const lab::CommandRefused &error) {
        std::cerr << "tfarray: " << error.what() << " (" << error.number << ")\n";
        return refused;
    } catch (const lab::ScenarioError &error) {
        std::cerr << "tfarray: " << error.what() << "\n";
        return usage;
    } catch (const lab::NoArray &error) {
        std::cerr << "tfarray: " << error.what() << "\n";
        return no_array;
    }
}

}  // namespace

int main(int argc, char **argv) {
    CLI::App app("Administers the simulated array", "tfarray");
    std::string socket = "/run/tfarray/control.sock";
    app.add_option("--socket", socket, "the array's control socket")
        ->envname("TFARRAY_SOCKET")
        ->capture_default_str();
    app.require_subcommand(1);
    lab::Commands commands(&app);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? 0 : usage;
    }
    return run(socket, commands.chosen());
}
