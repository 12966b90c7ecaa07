# The tool's sources except main(): one list for the ordinary build (CMakeLists.txt) and
# the libFuzzer build (fuzz/CMakeLists.txt). KIV_ROOT is the top of the source tree.
file(GLOB KIV_SOURCES CONFIGURE_DEPENDS
  ${KIV_ROOT}/kiv/*.cpp
  ${KIV_ROOT}/shell/*.cpp
  ${KIV_ROOT}/access/*.cpp
  ${KIV_ROOT}/internal/kivcmd/*.cpp
  ${KIV_ROOT}/internal/common/*.cpp
  ${KIV_ROOT}/sim/*.cpp)
list(FILTER KIV_SOURCES EXCLUDE REGEX ".*/shell/kivshell_main\\.cpp$")
