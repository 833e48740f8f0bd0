// The array of one world, in the foreground.
#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <iostream>

#include "lab/array/daemon/server.h"

namespace {

struct Options {
    std::string store, state, control, media = "loop";
    int ready_fd = -1;
};

void add_options(CLI::App *app, Options *options) {
    app->add_option("--store", options->store, "folder for the data of the devices")
        ->required()
        ->check(CLI::ExistingDirectory);
    app->add_option("--state", options->state, "SQLite file with the state")->required();
    app->add_option("--control", options->control, "the administrator's socket")->required();
    app->add_option("--media", options->media, "loop: block devices; files: regular files")
        ->check(CLI::IsMember({"loop", "files"}))
        ->capture_default_str();
    app->add_option("--ready-fd", options->ready_fd,
                    "descriptor that gets a newline when the array is ready");
}

void say_ready(int fd) {
    if (fd < 0) return;
    if (write(fd, "\n", 1) != 1) std::cerr << "tfarrayd: nobody reads descriptor " << fd << "\n";
    close(fd);
}

}  // namespace

int main(int argc, char **argv) {
    // Who read our messages may be gone; the array goes on.
    signal(SIGPIPE, SIG_IGN);
    CLI::App app("The simulated array of one world", "tfarrayd");
    Options options;
    add_options(&app, &options);
    CLI11_PARSE(app, argc, argv);
    try {
        lab::Engine engine(options.state, options.media == "loop"
                                              ? lab::make_loop_media(options.store)
                                              : lab::make_file_media(options.store));
        if (!engine.media().limits().empty()) {
            std::cerr << "tfarrayd: " << engine.media().limits() << "\n";
        }
        lab::Server server(&engine, options.control);
        say_ready(options.ready_fd);
        server.run();
    } catch (const std::exception &error) {
        std::cerr << "tfarrayd: " << error.what() << "\n";
        return 1;
    }
}
