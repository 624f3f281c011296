// What the sanitizers do in every test program, however it is started.

extern "C" {

#ifdef __SANITIZE_ADDRESS__
[[gnu::visibility("default")]] const char* __asan_default_options();
const char* __asan_default_options() {
    // Running out of memory is a behaviour of the library, so an allocation may fail. On the target leaks
    // cannot be found, and the board has little memory to keep what was freed.
    return "allocator_may_return_null=1:detect_stack_use_after_return=1:strict_string_checks=1"
#ifndef __powerpc__
           ":detect_leaks=1"
#else
           ":detect_leaks=0:quarantine_size_mb=4:thread_local_quarantine_size_kb=64"
#endif
        ;
}

[[gnu::visibility("default")]] const char* __ubsan_default_options();
const char* __ubsan_default_options() { return "print_stacktrace=1:halt_on_error=1"; }
#endif

#ifdef __SANITIZE_THREAD__
[[gnu::visibility("default")]] const char* __tsan_default_options();
const char* __tsan_default_options() {
    return "halt_on_error=1:second_deadlock_stack=1:allocator_may_return_null=1";
}
#endif
}
