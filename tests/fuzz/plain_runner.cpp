// Stands in for libFuzzer where there is none: runs the target once on every file that the
// arguments name, folders included.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv)
{
    std::size_t inputs = 0;
    const auto run = [&inputs](const std::filesystem::path& file) {
        std::ifstream stream(file, std::ios::binary);
        const std::string data((std::istreambuf_iterator<char>(stream)), std::istreambuf_iterator<char>());
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(data.data()), data.size());
        ++inputs;
    };
    for (int i = 1; i < argc; ++i) {
        if (argv[i][0] == '-')
            continue; // an option of libFuzzer
        if (!std::filesystem::is_directory(argv[i])) {
            run(argv[i]);
            continue;
        }
        for (const auto& item : std::filesystem::recursive_directory_iterator(argv[i]))
            if (item.is_regular_file())
                run(item.path());
    }
    std::printf("%zu inputs\n", inputs);
    return inputs == 0 ? 1 : 0;
}
