# Sourced by scripts/test.sh and scripts/simulate.sh: installs the Debian
# packages that the build and the tests lack, when run as root; otherwise
# names them and stops the calling script.
PACKAGES="cmake make g++ pkg-config libsqlite3-dev sqlite3 libssl-dev libgtest-dev libgmock-dev"

missing=""
for p in $PACKAGES; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing="$missing $p"
done
if [ -n "$missing" ]; then
  if [ "$(id -u)" = 0 ] && command -v apt-get >/dev/null; then
    echo "Installing:$missing"
    apt-get update -qq
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends $missing
  else
    echo "Missing Debian packages:$missing (run as root to install them)" >&2
    exit 1
  fi
fi
