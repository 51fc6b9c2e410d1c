// Replays inputs through the settings file fuzz target without libFuzzer:
// every regular file of each directory named on the command line (in name
// order), or each file named directly. Fails when an input makes the target
// abort, or when there was nothing to replay.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv)
{
    namespace fs = std::filesystem;
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s <corpus directory or file>...\n", argv[0]);
        return 2;
    }
    std::vector<fs::path> inputs;
    for (int i = 1; i < argc; ++i) {
        const fs::path path(argv[i]);
        std::error_code error;
        if (fs::is_directory(path, error)) {
            std::vector<fs::path> files;
            for (const fs::directory_entry& entry : fs::directory_iterator(path)) {
                if (entry.is_regular_file()) {
                    files.push_back(entry.path());
                }
            }
            std::sort(files.begin(), files.end());
            inputs.insert(inputs.end(), files.begin(), files.end());
        } else if (fs::is_regular_file(path, error)) {
            inputs.push_back(path);
        } else {
            std::fprintf(stderr, "%s: no such file or directory\n", argv[i]);
            return 2;
        }
    }
    if (inputs.empty()) {
        std::fprintf(stderr, "nothing to replay\n");
        return 1;
    }

    LLVMFuzzerInitialize(&argc, &argv);
    for (const fs::path& input : inputs) {
        std::ifstream file(input, std::ios::binary);
        const std::vector<char> bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
        if (!file.eof() && file.fail()) {
            std::fprintf(stderr, "%s: cannot read\n", input.c_str());
            return 2;
        }
        std::fprintf(stderr, "replay %s (%zu bytes)\n", input.c_str(), bytes.size());
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    }
    std::fprintf(stderr, "replayed %zu inputs\n", inputs.size());
    return 0;
}
