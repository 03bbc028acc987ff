// Prints cipher passes for another implementation to check: on each line the key, the block before
// and the block after the pass, in hexadecimal.

#include <cstddef>
#include <cstdio>
#include <random>

#include "MAIN/src/VendorIdModule.h"

namespace {

void print(const VendorIdBlock& block, char end) {
    for (const unsigned char byte : block) {
        std::printf("%02x", byte);
    }
    std::putchar(end);
}

void printPass(const VendorIdBlock& key, const VendorIdBlock& before) {
    VendorIdBlock after = before;
    RunVendorIdCipherPass(after, key);
    print(key, ' ');
    print(before, ' ');
    print(after, '\n');
}

}  // namespace

int main() {
    printPass({}, {});
    std::mt19937 random(3307);
    for (int n = 0; n < 200; ++n) {
        VendorIdBlock key;
        VendorIdBlock block;
        for (std::size_t i = 0; i < key.size(); ++i) {
            key[i] = static_cast<unsigned char>(random());
            block[i] = static_cast<unsigned char>(random());
        }
        printPass(key, block);
    }
}
