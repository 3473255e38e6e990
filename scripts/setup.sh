# What ./run and ./test share: packages, the parser, configuring and building. To be sourced by bash, with the root of
# the repository as the current folder. Everything it says goes to standard error, so that what the program prints can
# be piped.
# shellcheck shell=bash

# Compilers, and the libraries that the standalone host is made of.
build_packages=(
  cmake
  g++
  libcli11-dev
  libfmt-dev
  libglib2.0-dev
  libsqlite3-dev
  ninja-build
  nlohmann-json3-dev
  pkg-config
)
# What the tests, the second compiler and the checks of the source need beyond that. python3 has a module that the
# scanner is compared with, and the library that it is run on.
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
)

say() {
  printf '%s\n' "$*" >&2
}

die() {
  say "${0##*/}: $*"
  exit 1
}

# need_packages PACKAGE...: installs those that are missing, all of them in one go.
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
  # Any npm will do, whoever packed it. Debian's trusts the certificates of the machine, of which a bare one has none.
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
    [[ -t 0 ]] || as_root+=(-n) # nobody is there to type a password
  fi
  as_root+=(env DEBIAN_FRONTEND=noninteractive)
  # Another apt may be at work; a few minutes is what an upgrade takes.
  local apt=("${as_root[@]}" apt-get -o DPkg::Lock::Timeout=300 -y)

  say "Installing packages: $*"
  log=$(mktemp)
  # The lists of a fresh machine are empty, and those of an old one may name versions that are gone.
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

# The sources of the parser and of its Python grammar, as package-lock.json pins them.
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

# is_configured PRESET [OPTION...]: whether build/PRESET was written with these options, from the presets as they are
# now, for the tree where it is now.
is_configured() {
  local dir=build/$1
  [[ -f $dir/build.ninja && -f $dir/.configured && $(<"$dir/.configured") == "$* $(cksum <CMakePresets.json)" ]] &&
    grep -qxF "CMAKE_HOME_DIRECTORY:INTERNAL=$PWD" "$dir/CMakeCache.txt"
}

# configure PRESET [OPTION...]: writes build/PRESET, unless that has been done. Later changes to a CMakeLists.txt are the
# build's own business.
configure() {
  local dir=build/$1
  if is_configured "$@"; then
    return
  fi
  # If the tree was moved or copied, CMake refuses a build folder that was made elsewhere.
  if [[ -f $dir/CMakeCache.txt ]] && ! grep -qxF "CMAKE_HOME_DIRECTORY:INTERNAL=$PWD" "$dir/CMakeCache.txt"; then
    rm -rf "$dir"
  fi
  mkdir -p "$dir"
  if ! flock build/.lock cmake --preset "$1" "${@:2}" >"$dir/configure.log" 2>&1; then
    # From the first complaint on, without the lines that tell of progress.
    awk '/^CMake (Error|Warning)/ { shown = 1 } shown && !/^-- /' "$dir/configure.log" >&2
    say "CMake could not configure the preset $1; what it says is above, and in full in $dir/configure.log."
    return 1
  fi
  printf '%s' "$* $(cksum <CMakePresets.json)" >"$dir/.configured"
}

# build PRESET [ARGUMENT...]: builds, and shows what went wrong. If there is something to do, a terminal sees how far it
# is; elsewhere, ./run says in one line that it builds (./test has headings of its own).
build() {
  local tty=0 announcement=
  [[ ! -t 2 ]] || tty=1
  [[ ${0##*/} != run ]] || announcement="Building the program (some minutes the first time)"
  # Two of these at once would write the same files.
  if ! flock build/.lock cmake --build --preset "$1" "${@:2}" 2>&1 | awk -v tty="$tty" -v announcement="$announcement" '
      # What ninja says of a failure: the target, then a command of many lines width, then the messages.
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
