# Sourced by the scripts of this folder: strict mode, the project's root, packages, builds.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

# What building and testing needs; every front end lists the packages of its libraries.
build_packages=(g++ cmake ninja-build)
mapfile -t -O ${#build_packages[@]} build_packages < <(cat "$root"/apps/*/packages.txt 2>/dev/null)
test_packages=(libgtest-dev slurmctld slurmd slurm-client munge python3-nibabel snakemake datalad)
mapfile -t -O ${#test_packages[@]} test_packages < <(cat "$root"/tests/*/packages.txt)

# as_root COMMAND...: runs it as root, through sudo if need be.
as_root() {
  if ((EUID == 0)); then "$@"; else sudo "$@"; fi
}

# installed_packages: names of the Debian packages that are there, and of what they provide (node's own
# package brings npm).
installed_packages() {
  dpkg-query -W -f='${db:Status-Abbrev}${Package}, ${Provides}\n' | sed -n 's/^ii //p' |
    tr ',' '\n' | sed 's/^ *//; s/ .*//'
}

# install_missing PACKAGE...: installs those Debian packages that are not there yet.
install_missing() {
  local package missing=() installed
  installed=$(installed_packages)
  for package; do
    grep -qxF "$package" <<<"$installed" || missing+=("$package")
  done
  ((${#missing[@]} == 0)) && return
  echo "Installing ${missing[*]}"
  as_root apt-get update -qq
  as_root env DEBIAN_FRONTEND=noninteractive \
    apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

# install_validator: the validator of BIDS datasets, from npm, where that can be had.
install_validator() {
  local npm=$root/build/npm
  [[ -e $npm/node_modules/.bin/bids-validator ]] && return
  mkdir -p "$npm"
  timeout 300 npm install --no-audit --no-fund --prefer-offline --prefix "$npm" bids-validator@1.15.0 >"$npm/log" 2>&1 ||
    echo "bids-validator is not there: its test is skipped"
}

# build NAME [CMAKE OPTION...]: configures and builds everything in build/NAME.
build() {
  local name=$1 log=$root/build/$1.log
  shift
  mkdir -p "$root/build"
  cmake -S "$root" -B "$root/build/$name" -G Ninja "$@" >"$log" &&
    cmake --build "$root/build/$name" >>"$log" 2>&1 || {
    cat "$log"
    return 1
  }
}
