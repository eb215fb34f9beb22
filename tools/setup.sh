# Sourced by run.sh, test.sh, bench.sh and scripts in tools/: what each of them needs, how it is installed and built.
# Everything here writes to standard error, so that the output of what is run stays clean.

project_root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

run_packages=(g++ cmake ninja-build libboost1.81-dev libcli11-dev liblmdb-dev libnetfilter-conntrack-dev
   clang-16 bpftool libbpf-dev)
test_packages=("${run_packages[@]}" clang-16 clang-format-16 doxygen libclang-rt-16-dev llvm-16
   libgtest-dev libgmock-dev librapidcheck-dev libbenchmark-dev nlohmann-json3-dev pkgconf python3 python3-jsonschema
   conntrack curl iproute2 nftables)
bench_packages=("${run_packages[@]}" libbenchmark-dev nlohmann-json3-dev)
tidy_packages=("${run_packages[@]}" nlohmann-json3-dev clang-16 clang-tidy-16 cppcheck)

# Installs those of the named packages that are missing; touches neither network nor system when none is.
ensure_packages() {
   if ! command -v dpkg-query >/dev/null; then
      echo "setup: not a Debian system, nothing installed. Needed, by Debian's names: $*" >&2
      return
   fi
   local package missing=() as_root=()
   for package in "$@"; do
      [ "$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null)" = installed ] || missing+=("$package")
   done
   [ ${#missing[@]} -gt 0 ] || return 0

   if [ "$(id -u)" -ne 0 ]; then
      if ! sudo -n true 2>/dev/null; then
         echo "setup: these packages are missing, and they can be installed neither as root nor by sudo:" >&2
         echo "   ${missing[*]}" >&2
         echo "Have them installed, then start again:  apt-get install --no-install-recommends ${missing[*]}" >&2
         return 1
      fi
      as_root=(sudo -n)
   fi
   echo "setup: installing ${missing[*]}" >&2
   as_root+=(env DEBIAN_FRONTEND=noninteractive apt-get -q)
   "${as_root[@]}" update >&2 && "${as_root[@]}" install -y --no-install-recommends "${missing[@]}" >&2 && return
   echo "setup: apt-get could not install ${missing[*]}; its own message stands above" >&2
   return 1
}

# build_preset PRESET [TARGET...]: configures and builds in build/PRESET; all targets when none is named.
build_preset() {
   local preset=$1 targets=()
   shift
   [ $# -eq 0 ] || targets=(--target "$@")
   cd "$project_root"
   echo "setup: building preset $preset${1:+, }$*" >&2
   cmake --preset "$preset" --log-level=NOTICE >&2
   cmake --build --preset "$preset" -j "$(nproc)" "${targets[@]}" >&2
}
