// A shared object that loads but has no C_GetFunctionList.
extern "C" __attribute__((visibility("default"))) int zorvo_testprov_nofl_marker(void) {
    return 1;
}
