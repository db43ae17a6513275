# Sourced by ./package: what has to hold of the packages in $packages.

say() { printf '\n==> %s\n' "$*"; }
not_shown() { echo "NOT SHOWN: $*" >&2; }

# Two builds of one commit are equal, wherever and whenever they are made, and whatever was compiled before.
check_reproducible() {
  local elsewhere
  elsewhere=$(mktemp -d)
  say "building again in $elsewhere"
  CCACHE_DISABLE=1 TZ=Pacific/Auckland build_packages HEAD "$elsewhere/packages" "$elsewhere/a-longer/path"
  (cd "$elsewhere/packages" && sha256sum ./*.deb) | (cd "$packages" && sha256sum --check --strict)
  rm -rf "$elsewhere"
}

check_packages() {
  say "lintian"
  lintian --allow-root --fail-on error,warning --info "$packages"/*.changes

  say "a fresh root"
  local as_root=() base=$packages/base.tar root=$packages/root
  if [[ $(id -u) -ne 0 ]]; then as_root=(unshare --map-auto --map-root-user --setuid 0 --setgid 0); fi
  # What the checks need themselves; all else has to come with the packages.
  if [[ ! -s $base ]]; then
    mmdebstrap --quiet --format=tar --variant=minbase --include=g++,pkg-config,python3-minimal bookworm "$base.new" &&
      mv "$base.new" "$base" || { not_shown "this machine makes no fresh root"; return 1; }
  fi
  "${as_root[@]}" rm -rf "$root"
  mkdir "$root"
  "${as_root[@]}" tar -x -C "$root" -f "$base"
  mkdir "$root"/packages{,/previous,/new}
  cp "$packages"/*.deb "$root/packages/new/"
  cp packaging/check-installed.sh packaging/hand_over.py "$root/packages/"
  cp /etc/resolv.conf "$root/etc/"

  if git cat-file -e HEAD^:packaging/debian/control 2>/dev/null; then
    say "packages of the previous commit, $(version HEAD^)"
    if ! compgen -G "$packages/previous/abd_$(version HEAD^)_*.deb" >/dev/null; then
      build_packages HEAD^ "$packages/previous" "$packages/source"
    fi
    cp "$packages"/previous/*.deb "$root/packages/previous/"
  else
    not_shown "there are no packages of the previous commit to upgrade from; the same ones are installed again"
    cp "$packages"/*.deb "$root/packages/previous/"
  fi
  "${as_root[@]}" unshare --mount --pid --fork --kill-child sh -c '
    mount --bind "$1" "$1" && mkdir -p "$2" "$1/var/cache/apt/archives" && mount --bind "$2" "$1/var/cache/apt/archives" &&
    mount -t proc proc "$1/proc" && mount --rbind /dev "$1/dev" && mount -t tmpfs tmpfs "$1/run" &&
    exec chroot "$1" env -i PATH=/usr/sbin:/usr/bin LANG=C.UTF-8 bash /packages/check-installed.sh
  ' sh "$root" "$packages/downloads" || return
  "${as_root[@]}" rm -rf "$root"
}
