# What ./run and ./test share: packages, the parser, configuring and building. Prints only to standard error, so that
# the output of the program can be piped.
# REQUIRES: bash sources it, with the root of the repository as the current folder.
# shellcheck shell=bash

# The compiler, the build tools and the libraries of the standalone host.
build_packages=(
  cmake
  g++
  libcli11-dev
  libfmt-dev
  libglib2.0-dev
  libsqlite3-dev
  libxxhash-dev
  ninja-build
  nlohmann-json3-dev
  pkg-config
)
# What the tests, the second compiler and the checks of the source need in addition. python3 has a module with which the
# scanner is compared, and a library on which it is run.
# shellcheck disable=SC2034 # ./test reads it
test_packages=(
  binutils
  clang-14
  clang-format-14
  clang-tidy-14
  libbenchmark-dev
  libclang-rt-14-dev
  libgmock-dev
  libgtest-dev
  llvm-14
  python3
  python3-typeshed
)

say() {
  printf '%s\n' "$*" >&2
}

die() {
  say "${0##*/}: $*"
  exit 1
}

# need_packages PACKAGE...: installs those that are missing, with one command.
need_packages() {
  local package missing=()
  if ! command -v dpkg-query >/dev/null; then
    need_commands cmake ninja pkg-config npm
    return
  fi

  local installed
  installed=$(dpkg-query -W -f '${Status} ${Package} ${Provides}\n' 2>/dev/null |
    awk '/^install ok installed / { gsub(/\([^)]*\)|,/, " "); for (i = 4; i <= NF; i++) print $i }')
  for package in "$@"; do
    if ! grep -qxF -- "$package" <<<"$installed"; then
      missing+=("$package")
    fi
  done
  # Any npm will do, from whatever source. Debian's uses the certificates of the machine, and a minimal one has none.
  if ! command -v npm >/dev/null; then
    missing+=(ca-certificates npm)
  fi
  if ((${#missing[@]} > 0)); then
    install_packages "${missing[@]}"
  fi
}

install_packages() {
  local as_root=() log
  if ((EUID != 0)); then
    command -v sudo >/dev/null ||
      die "these packages are missing: $*. Neither root nor sudo is here to install them; ask someone who may."
    as_root=(sudo)
    [[ -t 0 ]] || as_root+=(-n) # without a terminal nobody can type a password
  fi
  as_root+=(env DEBIAN_FRONTEND=noninteractive)
  # Another apt may be running; an upgrade takes a few minutes.
  local apt=("${as_root[@]}" apt-get -o DPkg::Lock::Timeout=300 -y)

  say "Installing packages: $*"
  log=$(mktemp)
  # The package lists of a new machine are empty, and those of an old one may name versions that no longer exist.
  if ! "${apt[@]}" install --no-install-recommends "$@" </dev/null >"$log" 2>&1; then
    if ! { "${apt[@]}" update && "${apt[@]}" install --no-install-recommends "$@"; } </dev/null >"$log" 2>&1; then
      tail -n 20 "$log" >&2
      rm -f "$log"
      die "apt-get could not install these packages: $*. Its last words are above."
    fi
  fi
  rm -f "$log"
}

need_commands() {
  local command
  for command in "$@"; do
    command -v "$command" >/dev/null ||
      die "$command is missing. This is no Debian machine, so please install it by hand; the packages that Debian has for all of it are: ${build_packages[*]}"
  done
}

# Installs the sources of the parser and of its Python grammar, as package-lock.json pins them.
need_grammar() {
  local installed=node_modules/.package-lock.json log
  if [[ -f node_modules/tree-sitter-python/src/parser.c &&
    -f node_modules/tree-sitter/vendor/tree-sitter/lib/src/lib.c && -f $installed &&
    ! package-lock.json -nt $installed && ! package.json -nt $installed ]]; then
    return
  fi
  say "Fetching the parser and the Python grammar (npm ci)"
  log=$(mktemp)
  if ! npm ci --ignore-scripts --no-audit --no-fund </dev/null >"$log" 2>&1; then
    tail -n 20 "$log" >&2
    rm -f "$log"
    die "npm could not fetch the parser and the Python grammar. Its last words are above; is a registry in reach?"
  fi
  rm -f "$log"
  touch "$installed"
}

# is_configured PRESET [OPTION...]: whether build/PRESET was configured with these options, from the present presets,
# and for the present place of the tree.
is_configured() {
  local dir=build/$1
  [[ -f $dir/build.ninja && -f $dir/.configured && $(<"$dir/.configured") == "$* $(cksum <CMakePresets.json)" ]] &&
    grep -qxF "CMAKE_HOME_DIRECTORY:INTERNAL=$PWD" "$dir/CMakeCache.txt"
}

# configure PRESET [OPTION...]: configures build/PRESET, unless that has been done. The build itself notices later
# changes of a CMakeLists.txt.
configure() {
  local dir=build/$1
  if is_configured "$@"; then
    return
  fi
  # CMake refuses a build folder that was made elsewhere, in a tree that was moved or copied since.
  if [[ -f $dir/CMakeCache.txt ]] && ! grep -qxF "CMAKE_HOME_DIRECTORY:INTERNAL=$PWD" "$dir/CMakeCache.txt"; then
    rm -rf "$dir"
  fi
  mkdir -p "$dir"
  if ! flock build/.lock cmake --preset "$1" "${@:2}" >"$dir/configure.log" 2>&1; then
    # Everything from the first error or warning on, without the progress lines.
    awk '/^CMake (Error|Warning)/ { shown = 1 } shown && !/^-- /' "$dir/configure.log" >&2
    say "CMake could not configure the preset $1; what it says is above, and in full in $dir/configure.log."
    return 1
  fi
  printf '%s' "$* $(cksum <CMakePresets.json)" >"$dir/.configured"
}

# build PRESET [ARGUMENT...]: builds, and shows what went wrong. If there is something to build, a terminal shows the
# progress, and ./run prints one line that it builds (./test has its own headings).
build() {
  local tty=0 announcement=
  [[ ! -t 2 ]] || tty=1
  [[ ${0##*/} != run ]] || announcement="Building the program (some minutes the first time)"
  # Two builds at the same time would write the same files.
  if ! flock build/.lock cmake --build --preset "$1" "${@:2}" 2>&1 | awk -v tty="$tty" -v announcement="$announcement" '
      # How ninja reports a failure: the target, then a very long command, then the messages.
      after_failure { after_failure = 0; next }
      /^FAILED: / { after_failure = 1 }
      function clear_line() { if (shown) printf "\r\033[K"; shown = 0 }
      /^\[[0-9]+\/[0-9]+\] (Re-checking globbed|Re-running CMake)/ || /^ninja: no work to do/ || /^-- / ||
        /^[0-9]+ warnings? generated\.$/ { next }
      /^\[[0-9]+\/[0-9]+\] / {
        if (!said++ && announcement) { print announcement; fflush() }
        if (tty) { printf "\r\033[K%s", substr($0, 1, 78); fflush(); shown = 1 }
        next
      }
      { clear_line(); print; fflush() }
      END { clear_line() }' >&2; then
    say "The build of the preset $1 failed; what went wrong is above."
    return 1
  fi
}
