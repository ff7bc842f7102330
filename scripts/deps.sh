# Sourced by the scripts: installs the Debian packages named in the
# arguments that are missing (as root, through apt-get), or says which are
# missing otherwise.
ensure_packages() {
  local missing=()
  local pkg
  for pkg in "$@"; do
    dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed" || missing+=("$pkg")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  if [ "$(id -u)" = 0 ] && command -v apt-get >/dev/null; then
    echo "Installing: ${missing[*]}"
    apt-get update -qq
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
  else
    echo "Missing packages (install them, or run as root): ${missing[*]}" >&2
    return 1
  fi
}

BOXLANE_BUILD_PACKAGES=(cmake ninja-build g++ pkg-config libgtest-dev)
