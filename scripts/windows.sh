# What the Windows build needs on a Linux machine. To be sourced by ./dev.

windows_packages=(g++-mingw-w64-x86-64-posix wine64 wine googletest)
pugixml_version=1.13
libwebsockets_version=4.1.6
windows_prefix=build/deps/windows

# Libraries that are headers only serve both systems: they are reached through a folder of links, since
# /usr/include itself belongs to another system's C library.
link_windows_headers() {
  local name
  mkdir -p "$windows_prefix/include"
  for name in boost rapidjson spdlog fmt CLI; do
    ln -sfn "/usr/include/$name" "$windows_prefix/include/$name"
  done
}

# build_windows_library NAME SOURCE CMAKE-OPTION...: installs it into the prefix, unless that is done.
build_windows_library() {
  local name=$1 source=$2
  shift 2
  local done_mark="$windows_prefix/$name.built"
  # What it was built from and how: another version or option builds it anew.
  local wanted="$source $*"
  [ -f "$done_mark" ] && [ "$(cat "$done_mark")" = "$wanted" ] && return
  say "building $name for Windows"
  local folder="build/deps/windows-build/$name"
  rm -rf "$folder"
  {
    cmake -S "$source" -B "$folder" -G Ninja -DCMAKE_BUILD_TYPE=Release -DBUILD_SHARED_LIBS=OFF \
      -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/toolchains/windows-x86_64.cmake" \
      -DCMAKE_INSTALL_PREFIX="$PWD/$windows_prefix" -DCMAKE_POLICY_DEFAULT_CMP0077=NEW "$@" &&
      cmake --build "$folder" && cmake --install "$folder"
  } >"build/deps/windows-$name.log" 2>&1 || { tail -40 "build/deps/windows-$name.log" >&2; fail "building $name failed"; }
  printf '%s' "$wanted" >"$done_mark"
}

setup_windows() {
  install_packages "${windows_packages[@]}"
  mkdir -p "$windows_prefix"
  link_windows_headers
  fetch_source pugixml "$pugixml_version"
  build_windows_library pugixml "$source_cache/pugixml-$pugixml_version"
  fetch_source libwebsockets "$libwebsockets_version"
  build_windows_library libwebsockets "$source_cache/libwebsockets-$libwebsockets_version" \
    -DLWS_WITH_SSL=OFF -DLWS_WITH_SHARED=OFF -DLWS_WITH_STATIC=ON -DLWS_WITHOUT_TESTAPPS=ON \
    -DLWS_WITHOUT_EXTENSIONS=ON -DLWS_WITH_MINIMAL_EXAMPLES=OFF \
    -DDISABLE_WERROR=ON -DCMAKE_C_FLAGS="-D_WIN32_WINNT=0x0A00 -w"
  build_windows_library googletest /usr/src/googletest
}

# Waits for Wine's server, which goes by itself soon after its last program: nothing of ours stays behind.
end_wine() {
  WINEPREFIX="${TOLM_WINE_PREFIX:-$PWD/build/wine}" timeout 60 wineserver -w ||
    say "Wine's server of $PWD/build/wine still runs: something of it did not end"
}
