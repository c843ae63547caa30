// peer_once CORPUS_DIRECTORY PEER/WORKLOAD COUNT: runs one case COUNT times, for instruction
// counts under a simulator. Take the difference of two counts to cancel start-up.
#include "cases.hpp"

#include <cstdlib>

int main(int argc, char** argv) {
    if (argc != 4) bench::fail("usage: peer_once CORPUS_DIRECTORY PEER/WORKLOAD COUNT");
    bench::load_corpus(argv[1]);
    bench::register_all();
    for (const bench::Case& c : bench::cases()) {
        if (c.name != argv[2]) continue;
        for (long i = std::atol(argv[3]); i > 0; --i) c.run();
        return 0;
    }
    bench::fail(std::string("no such case: ") + argv[2]);
}
