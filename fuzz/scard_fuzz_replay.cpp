// Runs the fuzz entry over the captured server requests and a deterministic set of mutations of
// them (truncations, flipped bytes, hostile counts), under the address and undefined-behaviour
// sanitizers. Usage: scard_fuzz_replay requests.tsv [mutations-per-request]
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

std::vector<std::uint8_t> hex(const std::string& s) {
    std::vector<std::uint8_t> out;
    for (std::size_t i = 0; i + 1 < s.size(); i += 2)
        out.push_back(static_cast<std::uint8_t>(std::stoul(s.substr(i, 2), nullptr, 16)));
    return out;
}

void run(std::uint32_t code, unsigned variant, const std::vector<std::uint8_t>& request) {
    std::vector<std::uint8_t> input = {static_cast<std::uint8_t>(code), static_cast<std::uint8_t>(code >> 8),
                                       static_cast<std::uint8_t>(variant)};
    input.insert(input.end(), request.begin(), request.end());
    LLVMFuzzerTestOneInput(input.data(), input.size());
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s requests.tsv [mutations]\n", argv[0]);
        return 2;
    }
    const int mutations = argc > 2 ? std::atoi(argv[2]) : 300;
    std::ifstream tsv(argv[1]);
    std::string line;
    std::mt19937 rng(20261123);
    static const std::uint32_t hostile[] = {0, 1, 3, 4, 5, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF, 0xFFFFFFFE, 2048, 2049, 70000};
    // Codes the captures do not cover, fed with the captured bodies too.
    static const std::uint32_t extra_codes[] = {32, 36, 40, 160, 180, 196, 216, 220, 224, 228, 256};
    int requests = 0;
    long runs = 0;
    while (std::getline(tsv, line)) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream fields(line);
        std::string id, ioctl, length, bytes;
        fields >> id >> ioctl >> length >> bytes;
        const auto code = static_cast<std::uint32_t>(std::stoul(ioctl, nullptr, 16));
        const auto request = hex(bytes);
        ++requests;
        for (unsigned variant = 0; variant < 4; ++variant, ++runs) run(code, variant, request);
        for (std::uint32_t other : extra_codes) run(other, 0, request), ++runs;
        for (int m = 0; m < mutations; ++m, ++runs) {
            auto mutated = request;
            switch (rng() % 3) {
                case 0:
                    mutated.resize(rng() % (mutated.size() + 1));
                    break;
                case 1:
                    for (int k = 0; k < 3; ++k) mutated[rng() % mutated.size()] = static_cast<std::uint8_t>(rng());
                    break;
                default: {
                    const std::size_t at = (rng() % (mutated.size() / 4)) * 4;
                    const std::uint32_t v = hostile[rng() % (sizeof hostile / sizeof hostile[0])];
                    for (int k = 0; k < 4 && at + static_cast<std::size_t>(k) < mutated.size(); ++k)
                        mutated[at + static_cast<std::size_t>(k)] = static_cast<std::uint8_t>(v >> (8 * k));
                }
            }
            run(rng() % 8 == 0 ? extra_codes[rng() % 11] : code, rng() % 4, mutated);
        }
    }
    if (requests == 0) {
        std::fprintf(stderr, "no requests read from %s\n", argv[1]);
        return 1;
    }
    std::printf("%d captured requests, %ld runs: every reply well framed, no sanitizer report\n", requests, runs);
    return 0;
}
