# 32-bit x86 with Debian's g++-12-multilib: the programs run on the x86-64 host itself.
# The versioned package lacks the /usr/include/asm link of the unversioned one, hence -idirafter.
set(kova_m32 "-m32 -idirafter /usr/include/x86_64-linux-gnu")
set(CMAKE_C_FLAGS_INIT "${kova_m32}")
set(CMAKE_CXX_FLAGS_INIT "${kova_m32}")
set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)
