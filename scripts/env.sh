# Sourced by the other scripts: installs what is missing and sets up the compiler cache, shared by every
# clone on this machine (paths are made relative to the clone so that a fresh clone still hits the cache).
cd "$(dirname "${BASH_SOURCE[0]}")/.."
scripts/install-deps
export CCACHE_DIR="${CCACHE_DIR:-$HOME/.cache/velmora-ccache}"
export CCACHE_BASEDIR="$PWD"
export CCACHE_NOHASHDIR=true
