# shellcheck shell=bash disable=SC2034
# Sourced by the other scripts: installs Debian packages that are missing.

# Debian 12 and 13 and Ubuntu 24.04 have it.
needed_cmake=3.25

# check_release complains when neither this host nor its release has a CMake
# that is new enough; before anything is installed.
check_release() {
  local here offered
  here=$(cmake --version 2>/dev/null | sed -n '1s/.* //p')
  offered=$(apt-cache policy cmake | sed -n 's/^ *Candidate: //p')
  dpkg --compare-versions "${here:-0}" ge "$needed_cmake" ||
    dpkg --compare-versions "${offered:-0}" ge "$needed_cmake" || {
    echo "CMake $needed_cmake is needed, and this release has ${offered:-none}:" \
      "try Debian 12 or 13, or Ubuntu 24.04." >&2
    return 1
  }
}

# need_packages PACKAGE... asks apt only for what is not there yet, through sudo
# where the caller is not root.
need_packages() {
  local missing=() package
  for package in "$@"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null |
      grep -q 'install ok installed' || missing+=("$package")
  done
  [ ${#missing[@]} -eq 0 ] && return 0

  command -v apt-get >/dev/null || {
    echo "No apt here. Please install what is in these packages of Debian:" \
      "${missing[*]}" >&2
    return 1
  }
  echo "Installing: ${missing[*]}" >&2
  local as_root=()
  if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || {
      echo "Please install these packages as root: ${missing[*]}" >&2
      return 1
    }
    as_root=(sudo)
  fi
  "${as_root[@]}" apt-get update -qq >&2 || true
  check_release || return 1
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get install -y -qq --no-install-recommends "${missing[@]}" >&2
}

build_packages=(g++ cmake ninja-build nlohmann-json3-dev)
# The last checks the schema of velcheck's JSON, which is skipped without it.
test_packages=(libgtest-dev python3-jsonschema)
