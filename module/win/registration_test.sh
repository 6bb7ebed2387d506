#!/usr/bin/env bash
# Registration round trips of TradeSliceManager.dll in the Wine prefix, read
# back with `reg query` after each step:
#   registration_test.sh <dll> machine   regsvr32, then regsvr32 /u
#   registration_test.sh <dll> user      DllInstall "user" (regsvr32 /n /i:user),
#                                        then its uninstall
# Each step must leave exactly the class keys, ProgIDs and type library of the
# module, or none of them. The module is left registered for the machine
# afterwards, as the tests that create it by ProgID expect.
set -uo pipefail
dll=$1
mode=$2
clsid='{49A73A32-E389-41B7-9937-C8A631784CD2}'
libid='{AC124D6F-B8CB-4AA3-BD14-A7CAE161065F}'
failures=0

query() { wine reg query "$1" /s 2>/dev/null | tr -d '\r' | sed '/^$/d'; }
fail() {
  echo "FAIL: $*"
  failures=$((failures + 1))
}
# The whole tree under $1 must read as $2 (the key names relative to $1).
expect_tree() {
  local got full
  got=$(query "$1")
  # reg prints full key names; the first line is the key itself.
  full=$(printf '%s\n' "$got" | head -1)
  got=$(printf '%s\n' "$got" | tail -n +2 | while IFS= read -r line; do
    case "$line" in "$full"*) printf '%s\n' "${line#"$full"}" ;; *) printf '%s\n' "$line" ;; esac
  done)
  [ "$got" = "$2" ] || fail "$1 reads"$'\n'"$got"$'\n'"instead of"$'\n'"$2"
}
expect_none() {
  wine reg query "$1" >/dev/null 2>&1 && fail "$1 is still there"
  return 0
}

path=$(wine winepath -w "$dll" 2>/dev/null | tr -d '\r')
dir=${path%\\*}\\
class_tree="    (Default)    REG_SZ    TradeSliceManager Class
\\InprocServer32
    (Default)    REG_SZ    $path
    ThreadingModel    REG_SZ    Both
\\ProgID
    (Default)    REG_SZ    Norda.TradeSliceManager.1
\\Programmable
\\TypeLib
    (Default)    REG_SZ    $libid
\\Version
    (Default)    REG_SZ    1.0
\\VersionIndependentProgID
    (Default)    REG_SZ    Norda.TradeSliceManager"
progid_tree="    (Default)    REG_SZ    TradeSliceManager Class
\\CLSID
    (Default)    REG_SZ    $clsid"
independent_tree="    (Default)    REG_SZ    TradeSliceManager Class
\\CLSID
    (Default)    REG_SZ    $clsid
\\CurVer
    (Default)    REG_SZ    Norda.TradeSliceManager.1"
library_tree="    (Default)    REG_SZ    QXTradeSliceManager 1.0 Type Library
\\0
\\0\\win64
    (Default)    REG_SZ    $path
\\FLAGS
    (Default)    REG_SZ    8
\\HELPDIR
    (Default)    REG_SZ    $dir"

expect_registered() {
  local root=$1
  expect_tree "$root\\CLSID\\$clsid" "$class_tree"
  expect_tree "$root\\Norda.TradeSliceManager.1" "$progid_tree"
  expect_tree "$root\\Norda.TradeSliceManager" "$independent_tree"
}
expect_unregistered() {
  local root=$1
  expect_none "$root\\CLSID\\$clsid"
  expect_none "$root\\Norda.TradeSliceManager.1"
  expect_none "$root\\Norda.TradeSliceManager"
  # NoRemove: the CLSID parent stays.
  wine reg query "$root\\CLSID" >/dev/null 2>&1 || [ "$root" != HKCR ] || fail "$root\\CLSID was removed"
}

wine regsvr32 /u /s "$dll" >/dev/null 2>&1
wine regsvr32 /u /s /n /i:user "$dll" >/dev/null 2>&1
expect_unregistered HKCR
expect_unregistered 'HKCU\Software\Classes'
expect_none "HKCR\\TypeLib\\$libid"

case "$mode" in
  machine)
    wine regsvr32 /s "$dll" || fail "regsvr32 answered $?"
    expect_registered HKCR
    # The library GUID written into the type library is the LIBID.
    expect_tree "HKCR\\TypeLib\\$libid\\1.0" "$library_tree"
    expect_unregistered 'HKCU\Software\Classes'
    # ForceRemove: a stray value under the class key is gone after registering again.
    wine reg add "HKCR\\CLSID\\$clsid\\Stray" /f >/dev/null 2>&1
    wine regsvr32 /s "$dll" || fail "second regsvr32 answered $?"
    expect_registered HKCR
    wine regsvr32 /u /s "$dll" || fail "regsvr32 /u answered $?"
    expect_unregistered HKCR
    expect_none "HKCR\\TypeLib\\$libid"
    ;;
  user)
    # "USER" in capitals is the same command line.
    wine regsvr32 /s /n /i:USER "$dll" || fail "DllInstall(TRUE, \"USER\") answered $?"
    expect_registered 'HKCU\Software\Classes'
    expect_unregistered HKCR
    # Per-user type library registration where the system has it; Wine's
    # writes the machine-wide keys.
    if wine reg query "HKCU\\Software\\Classes\\TypeLib\\$libid" >/dev/null 2>&1; then
      expect_tree "HKCU\\Software\\Classes\\TypeLib\\$libid\\1.0" "$library_tree"
    else
      expect_tree "HKCR\\TypeLib\\$libid\\1.0" "$library_tree"
    fi
    wine regsvr32 /u /s /n /i:user "$dll" || fail "DllInstall(FALSE, \"user\") answered $?"
    expect_unregistered 'HKCU\Software\Classes'
    expect_none "HKCU\\Software\\Classes\\TypeLib\\$libid"
    expect_none "HKCR\\TypeLib\\$libid"
    # "users" is not "user": the comparison takes the terminator in.
    wine regsvr32 /s /n /i:users "$dll" || fail "DllInstall(TRUE, \"users\") answered $?"
    expect_registered HKCR
    expect_unregistered 'HKCU\Software\Classes'
    wine regsvr32 /u /s "$dll" >/dev/null 2>&1
    ;;
  *) fail "unknown mode $mode" ;;
esac

wine regsvr32 /s "$dll" || fail "final regsvr32 answered $?"
echo "$failures failures"
[ "$failures" -eq 0 ]
