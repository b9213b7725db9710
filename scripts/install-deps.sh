#!/usr/bin/env bash
# Installs every Debian package the project needs to build, test, fuzz and benchmark.
# Idempotent: when everything is already there it changes nothing and asks no mirror.
set -euo pipefail

packages=(
  # toolchain
  build-essential cmake ninja-build ccache clang-format pkg-config
  # fuzzing: clang with libFuzzer and the sanitizer runtimes
  clang-14 libclang-rt-14-dev
  # tests and benchmarks
  googletest libgtest-dev libgmock-dev libbenchmark-dev
  # executors: standalone Asio (C++20 coroutines); logging to the journal
  libasio-dev libsystemd-dev
  # security: P-256, SHA-256, HMAC, random, X.509 parsing; JSON stores; certtool for tests
  libgnutls28-dev nettle-dev libgmp-dev nlohmann-json3-dev gnutls-bin
  # transport: QUIC with its GnuTLS crypto helper; DNS-SD through avahi-daemon
  libngtcp2-dev libngtcp2-crypto-gnutls-dev libavahi-client-dev
  # discovery tests: a private bus and avahi-daemon in a network namespace, avahi-browse beside ours
  avahi-daemon avahi-utils dbus-daemon iproute2 util-linux
  # video: X11 capture (MIT-SHM, DAMAGE, RANDR), pixel conversion, HEVC through libavcodec
  libxcb1-dev libxcb-shm0-dev libxcb-damage0-dev libxcb-xfixes0-dev libxcb-randr0-dev libyuv-dev
  libavcodec-dev libavutil-dev libswscale-dev
  # input: XTest injection, the server's keymap through libxkbcommon
  libxcb-xtest0-dev libxcb-xkb-dev libxkbcommon-dev libxkbcommon-x11-dev xkb-data
  # capture and input tests: a virtual X server, and keyboard layouts switched on it
  xvfb x11-xkb-utils
  # the host: keeping the display awake; the pairing URL as a QR code; the client's saved frames
  libxcb-screensaver0-dev libqrencode-dev libpng-dev
  # the cursor's image (XFixes, PNG) and display thumbnails (JPEG); the client's clipboard and the
  # tests' other X clients (xclip, xdotool, xprop) and window manager
  libturbojpeg0-dev xclip xdotool x11-utils openbox
  # the pointer: XInput 2 raw motion, so that a still pointer costs no look at the server
  libxcb-xinput-dev
  # windows and focus: EWMH, a window's own pixels (Composite), its process (X-Resource); desktop
  # entries and icons through GIO
  libxcb-ewmh-dev libxcb-composite0-dev libxcb-res0-dev libglib2.0-dev
  # installed applications' icons: the freedesktop icon theme lookup (GtkIconTheme, no display
  # needed) and gdk-pixbuf's PNG and SVG loaders
  libgtk-3-dev librsvg2-common
  # text focus through AT-SPI; its tests' private accessibility bus (at-spi-bus-launcher, gdbus)
  libatspi2.0-dev at-spi2-core libglib2.0-bin
  # menus: a Qt program of the tests' own exports its menu bar as a dbusmenu
  qt6-base-dev
  # audio: capture through the PulseAudio client API (PipeWire serves it too), rate and channel
  # conversion; tests run a private PulseAudio server and play into it with paplay
  libpulse-dev libswresample-dev pulseaudio pulseaudio-utils
  # files: the desktop notification of what arrived, shown by a notification daemon in the tests
  dunst
  # reach from outside: homes behind NAT in network namespaces for the relay's tests
  nftables conntrack
  # the coordinator: the host's HTTPS client (libcurl over GnuTLS); the coordinator's HTTPS server
  # (libmicrohttpd over GnuTLS) and its stores, one SQLite file or a shared PostgreSQL
  libcurl4-gnutls-dev libmicrohttpd-dev libsqlite3-dev libpq-dev postgresql-15
  # the demo: something moving on the virtual display
  xterm x11-apps
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=()
[ "$(id -u)" -eq 0 ] || sudo=(sudo)
echo "install-deps: installing ${missing[*]}"
"${sudo[@]}" apt-get update -qq
DEBIAN_FRONTEND=noninteractive "${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
