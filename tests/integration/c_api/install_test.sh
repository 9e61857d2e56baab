#!/usr/bin/env bash
# Installs the build into a fresh prefix and uses it as an application would:
# the installed files, the soname, the exported symbols, and C99 programs (this
# folder's client and the README's example) built with pkg-config.
set -euo pipefail
build_dir="$1"
source_dir="$2"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix="$work/prefix"

cmake --install "$build_dir" --prefix "$prefix" >/dev/null
for file in include/halyx.h lib/libhalyx.so lib/pkgconfig/halyx.pc bin/halyx; do
  [ -e "$prefix/$file" ] || { echo "missing after install: $file"; exit 1; }
done
soname=$(readelf -d "$prefix/lib/libhalyx.so" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
[ "$soname" = "libhalyx.so.0" ] || { echo "soname is '$soname', expected libhalyx.so.0"; exit 1; }

# Exactly the halyx_* functions the header declares leave the library.
exported=$(nm -D --defined-only "$prefix/lib/libhalyx.so" | awk '{print $3}' | sort)
strays=$(grep -v '^halyx_' <<<"$exported" || true)
[ -z "$strays" ] || { echo "symbols other than halyx_* are exported:"; echo "$strays"; exit 1; }
declared=$(grep -oE 'HALYX_API halyx_errorcode_t halyx_[a-z0-9_]+' "$prefix/include/halyx.h" | awk '{print $3}' | sort)
undeclared=$(comm -23 <(echo "$exported") <(echo "$declared"))
[ -z "$undeclared" ] || { echo "exported but not in halyx.h:"; echo "$undeclared"; exit 1; }

export PKG_CONFIG_PATH="$prefix/lib/pkgconfig"
flags=(-std=c99 -Wall -Wextra -pedantic -Werror)
cc "${flags[@]}" "$source_dir/tests/integration/c_api/c99_client.c" $(pkg-config --cflags --libs halyx) -o "$work/client"
"$work/client"

# The README's C example, exactly as it stands there.
awk '/^```c$/{inside=1; next} /^```$/{inside=0} inside' "$source_dir/README.md" > "$work/readme_example.c"
[ -s "$work/readme_example.c" ] || { echo "README.md has no C example"; exit 1; }
cc "${flags[@]}" "$work/readme_example.c" $(pkg-config --cflags --libs halyx) -o "$work/readme_example"
output=$("$work/readme_example")
grep -qx 'error 50: Configuration must be a JSON object' <<<"$output" || {
  echo "README example printed:"; echo "$output"; exit 1; }
echo "install, symbols, pkg-config client and README example: ok"
