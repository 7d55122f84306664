// All that this program needs of the library is a data block.
#include <nx/buffer/CNxDataBlock.h>

int main() {
    CNxDataBlock* block = nullptr;
    if (CNxDataBlock::CreateInstance(block, 64, nullptr) != NX_OK) {
        return 1;
    }
    block->ReleaseReference();
}
