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

# The readers written files are checked with: FFmpeg, GStreamer (qtdemux,
# h264parse, the libav decoders) and Chromium; node and npm for the npm
# packages come from Debian unless the machine has them already.
BOXLANE_READER_PACKAGES=(ffmpeg gstreamer1.0-tools gstreamer1.0-plugins-good gstreamer1.0-plugins-bad
  gstreamer1.0-libav chromium)

# npm packages the tests run with node, installed into the folder given
# (never committed): mp4box.js 2.x (as mp4box-2: it reads every tfra entry,
# which 0.5 does not) and playwright-core.
install_npm_packages() {
  local dir=$1 pkg wanted=()
  for pkg in mp4box-2 playwright-core; do
    [ -f "$dir/node_modules/$pkg/package.json" ] || wanted+=("$pkg")
  done
  [ ${#wanted[@]} -eq 0 ] && return 0
  command -v npm >/dev/null || ensure_packages nodejs npm
  mkdir -p "$dir"
  npm install --prefix "$dir" --no-audit --no-fund --silent mp4box-2@npm:mp4box@2 playwright-core@1 >/dev/null
}
