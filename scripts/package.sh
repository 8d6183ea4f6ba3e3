# Packages for both systems, from the presets that are shipped. To be sourced by ./dev, behind windows.sh.

package_folder=build/packages

# pack PRESET: builds what is packed, and replaces that preset's packages.
pack() {
  local preset=$1 made="build/$1/packages"
  build "$preset" packaged
  say "packing the preset '$preset'"
  rm -rf "$made"
  cpack --config "build/$preset/CPackConfig.cmake" -B "$PWD/$made" >"build/package-$preset.log" 2>&1 ||
    { tail -40 "build/package-$preset.log" >&2; fail "packing '$preset' failed"; }
  mkdir -p "$package_folder"
  if [ "$preset" = windows ]; then
    rm -f "$package_folder"/*.zip
    mv "$made"/*.zip "$package_folder"
  else
    rm -f "$package_folder"/*.tar.gz "$package_folder"/*.deb
    mv "$made"/*.tar.gz "$made"/*.deb "$package_folder"
  fi
  rm -rf "$made"
}

# make_packages [--check] [--linux | --windows]: makes the packages and checks them; or checks only.
make_packages() {
  local presets=(release windows) making=yes preset
  while [ $# -gt 0 ]; do
    case "$1" in
      --check) making=no ;;
      --linux) presets=(release) ;;
      --windows) presets=(windows) ;;
      *) fail "package: no such option: $1" ;;
    esac
    shift
  done
  # The check builds and runs for Windows, too.
  case " ${presets[*]} " in *" windows "*) setup_windows ;; esac
  if [ "$making" = yes ]; then
    for preset in "${presets[@]}"; do pack "$preset"; done
  fi
  local version
  version=$(sed -n 's/^project(TolmLPCFrame VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
  [ -n "$version" ] || fail "CMakeLists.txt has no version"
  local systems=()
  for preset in "${presets[@]}"; do
    case "$preset" in windows) systems+=(windows) ;; *) systems+=(linux) ;; esac
  done
  say "checking the packages"
  local result=0
  python3 tests/package/check.py "$package_folder" "$version" "${systems[@]}" || result=$?
  case " ${systems[*]} " in *" windows "*) end_wine ;; esac
  [ "$result" = 0 ] || fail "a package is not as it should be"
  say "the packages are in $package_folder"
  ls -l "$package_folder" >&2
}
