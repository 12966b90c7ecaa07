# The fuzz targets (fuzz/fuzz_<name>.cpp), shared by the libFuzzer build and the replay
# smoke tests of the ordinary build, with any extra link options a target needs and the
# number of mutations its smoke test replays (3000 unless said otherwise).
set(KIV_FUZZ_TARGETS checkers config grammar engine adapter editor)

# The adapter target runs the completion waits on a virtual clock of its own.
set(KIV_FUZZ_LINK_adapter -Wl,--wrap=clock_gettime -Wl,--wrap=nanosleep)
# The editor's key reads and waits on standard input are served from the input in memory.
set(KIV_FUZZ_LINK_editor -Wl,--wrap=read -Wl,--wrap=pselect -Wl,--wrap=fflush)
