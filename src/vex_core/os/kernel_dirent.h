#pragma once
// Linux: an entry of a folder as the system call getdents64 gives it; the C library has no declaration. For code that
// may not allocate, as readdir would.

namespace VexCore::os {

struct KernelDirent
{
    unsigned long long inode;
    long long offset;
    unsigned short recordSize;
    unsigned char type;
    char name[1];
};

} // namespace VexCore::os
