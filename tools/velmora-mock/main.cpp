// The local account server for people: serves the account's REST interface on loopback until interrupted.
//   velmora-mock [--port PORT] [--state FILE]
// With --state, accounts, users, devices and events are loaded from FILE at start and saved to it on exit.
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>

#include <unistd.h>

#include "tools/velmora-mock/AccountServer.h"

namespace {
volatile std::sig_atomic_t interrupted = 0;
void onSignal(int) {
    interrupted = 1;
}

int usage() {
    std::fprintf(stderr, "usage: velmora-mock [--port PORT] [--state FILE]\n");
    return 2;
}
}  // namespace

int main(int argc, char** argv) {
    velmora::mock::AccountServer::Options options;
    std::string stateFile;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--port" && i + 1 < argc) {
            try {
                options.port = std::stoi(argv[++i]);
            } catch (...) {
                return usage();
            }
        } else if (arg == "--state" && i + 1 < argc) {
            stateFile = argv[++i];
        } else {
            return usage();
        }
    }
    try {
        velmora::mock::AccountServer server(options);
        if (!stateFile.empty()) {
            std::ifstream in(stateFile);
            if (in) {
                const auto state = nlohmann::json::parse(in, nullptr, false);
                if (state.is_discarded()) {
                    std::fprintf(stderr, "velmora-mock: %s is not JSON; starting empty\n", stateFile.c_str());
                } else {
                    server.loadState(state);
                }
            }
        }
        std::signal(SIGINT, onSignal);
        std::signal(SIGTERM, onSignal);
        std::printf("velmora-mock listening on %s\n", server.url().c_str());
        std::fflush(stdout);
        while (interrupted == 0) {
            ::pause();
        }
        if (!stateFile.empty()) {
            std::ofstream(stateFile) << server.state().dump(2) << "\n";
        }
        server.stop();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s\n", e.what());
        return 1;
    }
    return 0;
}
