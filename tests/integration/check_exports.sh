#!/usr/bin/env bash
# Fails when libzeva.so exports anything beyond the library's interface, or
# lacks its SONAME. Usage: check_exports.sh path/to/libzeva.so
set -euo pipefail
lib=$1
soname=$(objdump -p "$lib" | awk '/SONAME/ {print $2}')
[ "$soname" = "libzeva.so.0" ] || { echo "SONAME is '$soname', want libzeva.so.0"; exit 1; }

allowed='^(ZEVA2?_[A-Za-z0-9_]+\(|(preset|profile|tune)_(from|to)_str\(|FilterBase::|(typeinfo|typeinfo name|vtable) for FilterBase$)'
names=$(nm -D --defined-only -C "$lib" | cut -d' ' -f3-)
stray=$(grep -vE "$allowed" <<<"$names" || true)
if [ -n "$stray" ]; then
  echo "libzeva.so exports names outside its interface:"; echo "$stray"; exit 1
fi
for want in 'ZEVA_Log_On(char const*, int)' 'ZEVA2_start(MovieInfo2 const&, void (*)(int, char const*, void*), void*)' 'ZEVA_Set_Log_Callback(' 'preset_from_str(char const*)'; do
  grep -qF "$want" <<<"$names" || { echo "missing export: $want"; exit 1; }
done
echo "exports ok: $(wc -l <<<"$names") names"
