#!/usr/bin/env bash
# The whole test suite: formatting, native tests under AddressSanitizer and
# UndefinedBehaviorSanitizer and under ThreadSanitizer, clang's thread-safety analysis of the
# library, the 32-bit ARM cross build with its tests under qemu, an installed package (shared and
# static) used by a separate project, through pkg-config and with the application's own binary
# log sink linked in each supported way, the benchmark build, and a bounded run of each fuzzer.
# Runs every stage, prints a summary, and exits non-zero if any stage failed.
set -uo pipefail
cd "$(dirname "$0")/.."
source tools/common.sh

utl_require_packages cmake ninja-build g++ pkg-config libgtest-dev googletest libbenchmark-dev \
    g++-arm-linux-gnueabihf qemu-user clang-format clang libclang-rt-dev python3 \
    libcurl4-openssl-dev sox || exit 1

jobs=$(utl_jobs)
results=()
failed=0

stage() {
    local name=$1
    shift
    echo
    echo "== $name"
    local start=$SECONDS
    if "$@"; then
        results+=("PASS  $name ($((SECONDS - start)) s)")
    else
        results+=("FAIL  $name ($((SECONDS - start)) s)")
        failed=1
    fi
}

sources() {
    git ls-files --cached --others --exclude-standard -- '*.h' '*.cpp' 2>/dev/null ||
        find include source tests bench examples tools -name '*.h' -o -name '*.cpp'
}

check_format() {
    sources | xargs clang-format --dry-run -Werror
}

build_and_test() {
    local dir=$1
    shift
    rm -rf "$dir/test-results"
    cmake -S . -B "$dir" -G Ninja -DUTL_WERROR=ON -DUTL_BUILD_TESTS=ON "$@" >/dev/null &&
        cmake --build "$dir" -j "$jobs" &&
        ctest --test-dir "$dir" --output-on-failure -j "$jobs"
}

# Adds up one attribute of the GoogleTest reports of every test stage.
sum_reports() {
    cat build/{asan,tsan,arm}/test-results/*.xml 2>/dev/null | grep -o "<testsuites [^>]*" |
        sed -n "s/.* $1=\"\([0-9]*\)\".*/\1/p" | awk '{ n += $1 } END { print n + 0 }'
}

# One line for each test that a test stage skipped, with the reason the test gave: a reference
# that a platform lacks (libcurl in the ARM build, say) shows here instead of passing unseen.
report_skips() {
    python3 - build/{asan,tsan,arm}/test-results/*.xml <<'PY'
import os, sys, xml.etree.ElementTree as tree
for path in sys.argv[1:]:
    if not os.path.exists(path):
        continue
    stage = path.split(os.sep)[-3]
    for case in tree.parse(path).iter("testcase"):
        skipped = case.find("skipped")
        if skipped is not None:
            reason = skipped.get("message", "").split("\n")[-1]
            print(f"SKIP  {stage}: {case.get('classname')}.{case.get('name')}: {reason}")
PY
}

native_sanitized() {
    build_and_test build/asan -DCMAKE_BUILD_TYPE=Debug -DUTL_SANITIZE=address,undefined
}

native_thread_sanitized() {
    build_and_test build/tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DUTL_SANITIZE=thread
}

# The library compiled with clang's -Wthread-safety: a lock annotation that the code does not
# keep fails the build.
thread_safety_analysis() {
    CC=clang CXX=clang++ cmake -S . -B build/clang-tsa -G Ninja -DCMAKE_BUILD_TYPE=Debug \
        -DUTL_WERROR=ON -DUTL_BUILD_TESTS=OFF -DUTL_THREAD_SAFETY_ANALYSIS=ON >/dev/null &&
        cmake --build build/clang-tsa --target utl -j "$jobs"
}

arm_under_qemu() {
    build_and_test build/arm -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBUILD_SHARED_LIBS=OFF \
        --toolchain cmake/arm-linux-gnueabihf.cmake
}

# The programs of tests/link against the package installed in $1, built afresh in $2 with CMake
# and with pkg-config: each logs an error line and fails unless its own BinaryLogWrite received
# it, with the sink in the executable or in a library given before libutl (a static one, and for
# a shared libutl a shared one linked with --as-needed).
link_checks() {
    local prefix=$1 dir=$2
    local pc=(env PKG_CONFIG_PATH="$prefix/lib/pkgconfig" pkg-config)
    local shared=1 static=()
    if [ -e "$prefix/lib/libutl.a" ]; then
        shared=0
        static=(--static)
    fi
    rm -rf "$dir"
    cmake -S tests/link -B "$dir" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null &&
        cmake --build "$dir" &&
        ctest --test-dir "$dir" --output-on-failure || return 1
    local cflags libs
    cflags=$("${pc[@]}" --cflags utl) && libs=$("${pc[@]}" "${static[@]}" --libs utl) || return 1
    pc_link_check() {
        local name=$1
        shift
        echo "-- pkg-config: $name"
        # The flags of pkg-config are meant to be split into words.
        # shellcheck disable=SC2086
        g++ -std=c++17 $cflags -o "$dir/$name" tests/link/LinkCheck.cpp "$@" $libs \
            -Wl,-rpath,"$dir:$prefix/lib" && "$dir/$name" >/dev/null
    }
    pc_link_check PcSinkInExecutable tests/link/RecordingSink.cpp &&
        pc_link_check PcStaticSinkBeforeUtl "$dir/librecording_sink_static.a" || return 1
    [ "$shared" -eq 0 ] ||
        pc_link_check PcSharedSinkBeforeUtl -Wl,--as-needed -L"$dir" -lrecording_sink_shared
}

# Release build with the benchmarks, installed into a temporary prefix that a separate project
# (examples/) and a pkg-config compile then use; the link checks run against it and against a
# static installation of the library alone.
installed_package() {
    local prefix static_prefix
    prefix=$(mktemp -d) && static_prefix=$(mktemp -d) || return 1
    cmake -S . -B build/release -G Ninja -DCMAKE_BUILD_TYPE=Release -DUTL_WERROR=ON \
        -DUTL_BUILD_TESTS=OFF -DUTL_BUILD_BENCHMARKS=ON -DCMAKE_INSTALL_PREFIX="$prefix" >/dev/null &&
        cmake --build build/release -j "$jobs" &&
        cmake --install build/release >/dev/null &&
        cmake -S examples -B build/examples -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null &&
        cmake --build build/examples &&
        build/examples/utl_tour &&
        PKG_CONFIG_PATH="$prefix/lib/pkgconfig" g++ -std=c++17 -o build/examples/utl_tour_pc \
            examples/tour.cpp $(PKG_CONFIG_PATH="$prefix/lib/pkgconfig" pkg-config --cflags --libs utl) \
            -Wl,-rpath,"$prefix/lib" &&
        build/examples/utl_tour_pc >/dev/null &&
        link_checks "$prefix" build/link-shared &&
        cmake -S . -B build/release-static -G Ninja -DCMAKE_BUILD_TYPE=Release -DUTL_WERROR=ON \
            -DUTL_BUILD_TESTS=OFF -DBUILD_SHARED_LIBS=OFF -DCMAKE_INSTALL_PREFIX="$static_prefix" \
            >/dev/null &&
        cmake --build build/release-static --target utl -j "$jobs" &&
        cmake --install build/release-static >/dev/null &&
        link_checks "$static_prefix" build/link-static
    local status=$?
    rm -rf "$prefix" "$static_prefix"
    return $status
}

# Each libFuzzer target for a bounded time, with AddressSanitizer and UndefinedBehaviorSanitizer.
fuzz() {
    local dir=build/fuzz
    CC=clang CXX=clang++ cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DUTL_WERROR=ON -DUTL_BUILD_TESTS=OFF -DUTL_BUILD_FUZZERS=ON -DBUILD_SHARED_LIBS=OFF \
        -DUTL_SANITIZE=address,undefined >/dev/null &&
        cmake --build "$dir" -j "$jobs" || return 1
    local target
    for target in "$dir"/tests/fuzz/*Fuzz; do
        [ -x "$target" ] || continue
        echo "-- $(basename "$target") for ${UTL_FUZZ_SECONDS:-20} s"
        mkdir -p "$dir/corpus/$(basename "$target")"
        "$target" -max_total_time="${UTL_FUZZ_SECONDS:-20}" -print_final_stats=0 \
            "$dir/corpus/$(basename "$target")" 2>"$dir/$(basename "$target").log" ||
            { tail -n 40 "$dir/$(basename "$target").log"; return 1; }
    done
}

stage "format" check_format
stage "native tests (AddressSanitizer, UndefinedBehaviorSanitizer)" native_sanitized
stage "native tests (ThreadSanitizer)" native_thread_sanitized
stage "thread-safety analysis (clang -Wthread-safety, library)" thread_safety_analysis
stage "32-bit ARM tests under qemu-arm" arm_under_qemu
stage "installed package, example, pkg-config, binary log sink links, benchmarks" installed_package
if command -v clang++ >/dev/null; then
    stage "fuzzing (libFuzzer, AddressSanitizer, UndefinedBehaviorSanitizer)" fuzz
else
    results+=("SKIP  fuzzing: clang++ is not installed")
fi

echo
echo "== Summary"
printf '%s\n' "${results[@]}"
skips=$(report_skips)
[ -n "$skips" ] && echo "$skips"
skipped=$(grep -c '^SKIP' <<<"$skips")
cases=$(sum_reports tests)
broken=$(($(sum_reports failures) + $(sum_reports errors)))
echo "tests: $((cases - broken - skipped)) passed, $skipped skipped, $broken failed"
exit $failed
