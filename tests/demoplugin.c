/* A plugin that the demo client loads with dlopen and that crashes two calls in. Built with
   clang and lld, whose first segment is smaller than a page: the library then has two
   mappings at file offset 0, and only the lower one is its base. */
static int *volatile null_pointer;

__attribute__((noinline)) void late_stage(int step)
{
    *null_pointer = step;
}

void plugin2_run(void)
{
    late_stage(2);
    /* Work after the call keeps it from becoming a jump. */
    null_pointer = 0;
}
