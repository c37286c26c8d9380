// Whole stacks for the suppressions of tests/lsan.supp, at the price of slower allocations. Without
// a sanitizer nothing calls this.

extern "C" const char* __asan_default_options();

extern "C" const char* __asan_default_options()
{
    return "fast_unwind_on_malloc=0:malloc_context_size=20";
}
