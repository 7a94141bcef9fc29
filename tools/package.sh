#!/usr/bin/env bash
# Builds the Debian packages of the architecture that it runs in, and a tarball of the same files for devices without
# dpkg:
#
#   tools/package.sh FOLDER
#
# FOLDER gets them; what was in it is removed. The page for the browser is packaged when it has been built: the build
# uses no network. The same sources make the same bytes, in any folder.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

folder=$(realpath -m "$1")
log=$folder/build.log
rm -rf "$folder"
mkdir -p "$folder/source"

# Its objects may name the folder of another build.
export CCACHE_DISABLE=1

fail() {
  echo "package: $*" >&2
  exit 1
}

# A copy, so that nothing of another build comes in, and nothing is left in the sources.
tar -c --exclude=./build --exclude=./.git --exclude=node_modules --exclude=__pycache__ . | tar -x -C "$folder/source"
cd "$folder/source"

profiles=()
if [ ! -f console/dist/index.html ]; then
  echo "package: the page for the browser is not built, so there is no package of it"
  profiles=(--build-profiles=pkg.appdatachannel.noconsole)
fi
DEB_BUILD_OPTIONS=parallel=$(nproc) dpkg-buildpackage --build=binary --no-sign "${profiles[@]}" >"$log" 2>&1 || {
  tail -n 40 "$log" >&2
  fail "the build failed; $log has all of it"
}

# What a device needs at run time, as the packages have it.
architecture=$(dpkg-architecture -q DEB_HOST_ARCH)
version=$(dpkg-parsechangelog -S Version)
for component in service stand-ins; do
  DESTDIR=$folder/image cmake --install "obj-$(dpkg-architecture -q DEB_HOST_GNU_TYPE)" --prefix /usr --strip \
    --component "$component" >>"$log"
done
rm -r "$folder/image/usr/share/man"
rm -rf "$folder/image/usr/share/appdatachannel"  # not for the television's side
tar -C "$folder/image" --sort=name --owner=0 --group=0 --numeric-owner --mode=u=rwX,go=rX \
  --mtime="@$(dpkg-parsechangelog -S Timestamp)" -c usr |
  xz -T1 >"$folder/appdatachannel-$version-$architecture.tar.xz"

cd "$folder"
rm -rf image source
