/* The sanitizers' run-time libraries for the target call this operation on 8 bytes, which no library has: GCC
   expects the processor to do it. */
unsigned long long __sync_val_compare_and_swap_8(volatile void* place, unsigned long long expected,
                                                 unsigned long long desired);

unsigned long long __sync_val_compare_and_swap_8(volatile void* place, unsigned long long expected,
                                                 unsigned long long desired) {
    __atomic_compare_exchange_n((volatile unsigned long long*)place, &expected, desired, 0, __ATOMIC_SEQ_CST,
                                __ATOMIC_SEQ_CST);
    return expected;
}
