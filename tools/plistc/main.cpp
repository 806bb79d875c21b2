// tarnwick-plistc IN OUT: writes the property list IN (XML or binary) to OUT
// in binary form. The build ships the resource tables this way because the
// binary form parses several times faster than XML at every start.
#include <plist/plist.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: tarnwick-plistc IN.plist OUT.plist\n");
        return 2;
    }
    std::ifstream in(argv[1], std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "tarnwick-plistc: cannot read %s\n", argv[1]);
        return 1;
    }
    const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    plist_t root = nullptr;
    const auto len = static_cast<uint32_t>(bytes.size());
    if (plist_is_binary(bytes.data(), len))
        plist_from_bin(bytes.data(), len, &root);
    else
        plist_from_xml(bytes.data(), len, &root);
    if (!root) {
        std::fprintf(stderr, "tarnwick-plistc: %s is not a property list\n", argv[1]);
        return 1;
    }
    char* out = nullptr;
    uint32_t outLen = 0;
    plist_to_bin(root, &out, &outLen);
    plist_free(root);
    const std::string target = argv[2];
    const std::string part = target + ".part";
    {
        std::ofstream o(part, std::ios::binary | std::ios::trunc);
        o.write(out, outLen);
        if (!o) {
            std::fprintf(stderr, "tarnwick-plistc: cannot write %s\n", part.c_str());
            plist_to_bin_free(out);
            return 1;
        }
    }
    plist_to_bin_free(out);
    if (std::rename(part.c_str(), target.c_str()) != 0) {
        std::fprintf(stderr, "tarnwick-plistc: cannot write %s\n", target.c_str());
        return 1;
    }
    return 0;
}
