# Sourced by the scripts that build: a build folder made for another copy of
# the sources (a clone copied with its build folders) cannot be reused, as
# CMake's cache names the sources it was made for; such a folder is started
# afresh, with a word about it.
fresh_build_dir() {
    local dir=$1 cache=$1/CMakeCache.txt made_for
    [ -f "$cache" ] || return 0
    made_for=$(sed -n 's/^CMAKE_HOME_DIRECTORY:INTERNAL=//p' "$cache")
    [ -n "$made_for" ] || return 0
    if [ "$(cd "$made_for" 2>/dev/null && pwd -P)" != "$(pwd -P)" ]; then
        echo "$(basename "$0"): $dir was built from $made_for; starting it afresh" >&2
        rm -rf -- "$dir"
    fi
}
