/* What the sanitizers' run-time libraries for the target lack: GCC expects the processor to do these
   operations on 8 bytes, or libatomic. That one takes a mutex with pthread_mutex_lock, in the middle of each
   allocation, which a program may have put its own function in place of. So these take a lock that calls
   nobody. */
#include <sys/syscall.h>
#include <time.h>

typedef unsigned long long Word;

/* The names are those of functions that the compiler has built in, with parameters that it does not let us
 * name. */
Word LoadWord(const volatile Word* place, int order) __asm__("__atomic_load_8");
void StoreWord(volatile Word* place, Word value, int order) __asm__("__atomic_store_8");
Word ExchangeWord(volatile Word* place, Word expected, Word desired) __asm__("__sync_val_compare_and_swap_8");

static int g_IsTaken;

/* Sleeps rather than yields: the lock's owner may have a lower priority, and there is one processor. No
   function of libc, which might be cancelled, faked, or checked by the sanitizer. */
static void Pause(void) {
    static const struct timespec kTime = {0, 1000};
    register long number __asm__("r0") = SYS_nanosleep;
    register const struct timespec* request __asm__("r3") = &kTime;
    register struct timespec* remaining __asm__("r4") = 0;
    __asm__ volatile("sc"
                     : "+r"(number), "+r"(request), "+r"(remaining)
                     :
                     : "r5", "r6", "r7", "r8", "r9", "r10", "r11", "r12", "cr0", "ctr", "xer", "memory");
}

static void Take(void) {
    while (__atomic_exchange_n(&g_IsTaken, 1, __ATOMIC_ACQUIRE) != 0) Pause();
}

static void Release(void) { __atomic_store_n(&g_IsTaken, 0, __ATOMIC_RELEASE); }

Word LoadWord(const volatile Word* place, int order) {
    (void)order;
    Take();
    const Word value = *place;
    Release();
    return value;
}

void StoreWord(volatile Word* place, Word value, int order) {
    (void)order;
    Take();
    *place = value;
    Release();
}

Word ExchangeWord(volatile Word* place, Word expected, Word desired) {
    Take();
    const Word value = *place;
    if (value == expected) *place = desired;
    Release();
    return value;
}
