# shellcheck shell=bash
# shellcheck disable=SC2034  # the scripts use what is set here
# Sourced by the other scripts, after they have gone to the root of the checkout.

# The folder to build in: build/ in the checkout, or the one that KESP_BUILD_DIR names, for a read-only checkout.
build_root=build
if [[ -n ${KESP_BUILD_DIR:-} ]]; then build_root=$(cd "$OLDPWD" && realpath -m -- "$KESP_BUILD_DIR"); fi

# need PACKAGE...: installs the Debian packages that are missing, and says only which. Silent if none is.
need() {
  local package status missing=()
  for package in "$@"; do
    status=$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null) || true
    [[ $status == installed ]] || missing+=("$package")
  done
  ((${#missing[@]})) || return 0

  local as_root=()
  if ((EUID != 0)); then
    if ! command -v sudo >/dev/null; then
      echo "Missing packages: ${missing[*]}. Install them as root, or install sudo." >&2
      return 1
    fi
    as_root=(sudo)
  fi
  echo "Installing ${missing[*]} ..." >&2
  local log
  log=$(mktemp)
  if ! { "${as_root[@]}" apt-get update -qq && "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
      apt-get install -y -qq --no-install-recommends "${missing[@]}"; } >"$log" 2>&1 </dev/null; then
    cat "$log" >&2
    rm -f "$log"
    return 1
  fi
  rm -f "$log"
}
