# Sourced by ./package. Expects what prepare.sh expects.

# The cache answers only what was compiled in the same directory: paths stay what they are.
unset CCACHE_BASEDIR CCACHE_NOHASHDIR

# version COMMIT: later commits have greater ones, all before the next release.
version() {
  local next
  next=$(git show "$1:packaging/debian/changelog" | sed -n '1s/.*(\(.*\)).*/\1/p')
  echo "$next~git$(git rev-list --count "$1").$(git rev-parse --short=8 "$1")"
}

# build_packages COMMIT RESULT SOURCE: the commit's tree is laid out and built in SOURCE, the packages go to RESULT.
build_packages() {
  local commit=$1 result=$2 source=$3
  rm -rf "$source" "$result"/*.{deb,buildinfo,changes}
  mkdir -p "$source/abd" "$result"
  git archive "$commit" | tar -x -C "$source/abd"
  cp -R "$source/abd/packaging/debian" "$source/abd/debian"
  sed -i -e "1s/(.*)/($(version "$commit"))/" \
    -e "s/^\( -- .*>  \).*/\1$(git log -1 --format=%cD "$commit")/" "$source/abd/debian/changelog"
  # The build has a home directory of its own.
  (cd "$source/abd" && CCACHE_DIR=$(ccache --get-config cache_dir) CMAKE_CXX_COMPILER_LAUNCHER=ccache \
    DEB_BUILD_OPTIONS=nocheck dpkg-buildpackage --build=binary --build-profiles=nocheck \
    --unsigned-changes --sanitize-env -J) >"$result/build.log" 2>&1 || {
    tail -n 40 "$result/build.log" >&2
    return 1
  }
  mv "$source"/*.{deb,buildinfo,changes} "$result/"
}
