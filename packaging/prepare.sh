# Sourced by the scripts at the root: installs what is missing and builds. Expects `set -euo pipefail` and the
# current directory to be the repository.

# Whoever builds the same sources in another directory finds what was compiled before.
export CCACHE_NOHASHDIR=1 CCACHE_BASEDIR=$PWD

# install_packages [LIST...]: installs the Debian packages of packaging/packages, and of further lists, that are
# missing; quick when none is.
install_packages() {
  local package missing=() as_root=()
  while read -r package; do
    [[ -z $package || $package == \#* ]] && continue
    if [[ $(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null) != installed ]]; then
      missing+=("$package")
    fi
  done < <(cat packaging/packages "$@")
  [[ ${#missing[@]} -eq 0 ]] && return
  if [[ $(id -u) -ne 0 ]]; then
    if ! command -v sudo >/dev/null; then
      echo "These packages are missing; install them as root and start again: ${missing[*]}" >&2
      return 1
    fi
    as_root=(sudo)
  fi
  echo "==> installing ${missing[*]}"
  "${as_root[@]}" apt-get update -q </dev/null
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -q -y --no-install-recommends \
    "${missing[@]}" </dev/null
}

# configure PRESET: anew when the presets changed; CMake itself looks at all other files.
configure() {
  if [[ ! build/$1/build.ninja -nt CMakePresets.json ]]; then cmake --preset "$1"; fi
}

# build PRESET [TARGET...]: configures and builds.
build() {
  local preset=$1
  shift
  configure "$preset"
  if [[ $# -gt 0 ]]; then
    cmake --build --preset "$preset" --target "$@"
  else
    cmake --build --preset "$preset"
  fi
}
