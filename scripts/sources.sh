# Source packages of the distribution, fetched once and kept in a cache. To be sourced by ./dev.
#
# The package lists are our own, made from the system's, so that nothing of the system's set-up changes.

source_cache="${XDG_CACHE_HOME:-$HOME/.cache}/tolmlpcframe"

# fetch_source PACKAGE VERSION: leaves the unpacked source, the distribution's patches applied, in
# $source_cache/PACKAGE-VERSION.
fetch_source() {
  local package=$1 version=$2
  local unpacked="$source_cache/$package-$version"
  [ -d "$unpacked" ] && return
  say "fetching the source package of $package $version"
  local work
  work=$(mktemp -d)
  mkdir -p "$source_cache" "$work"/{parts,lists/partial,cache/archives/partial,source}
  local list
  for list in /etc/apt/sources.list.d/debian*.sources; do
    [ -f "$list" ] && sed 's/^Types:.*/Types: deb-src/' "$list" >"$work/parts/$(basename "$list")"
  done
  if [ -f /etc/apt/sources.list ]; then
    sed -n 's/^deb /deb-src /p' /etc/apt/sources.list >"$work/parts/main.list"
  fi
  local options=(-q -o "Dir::Etc::SourceList=/dev/null" -o "Dir::Etc::SourceParts=$work/parts"
    -o "Dir::State::Lists=$work/lists" -o "Dir::Cache=$work/cache" -o "APT::Sandbox::User=")
  apt-get "${options[@]}" update >&2 || fail "no package lists for source packages"
  (cd "$work/source" && apt-get "${options[@]}" source "$package" >&2) || fail "no source package of $package"
  [ -d "$work/source/$package-$version" ] ||
    fail "the source package is not $package $version: $(ls "$work/source")"
  rm -rf "$unpacked.new"
  mv "$work/source/$package-$version" "$unpacked.new"
  mv "$unpacked.new" "$unpacked"
  rm -rf "$work"
}
