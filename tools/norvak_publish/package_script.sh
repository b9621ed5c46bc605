#!/bin/sh
# The installation script of an agent package. norvak_publish prepends assignments of the package's
# own values. It runs as ./update in the unpacked package, two levels below the install directory,
# with the agent stopped.
#
# The installation is all or nothing: new files are staged beside their targets, old ones are kept
# as hard links, and a journal in the install directory says how to undo everything. If anything
# fails or interrupts this script, it restores the old files. After a SIGKILL or a power cut the
# next run restores them, even if it installs another package: the journal's format must not change.
# shellcheck disable=SC2154 # the prepended values

unset LD_LIBRARY_PATH # the agent's own libraries are not for the host's programs
LC_ALL=C
export LC_ALL
set -u
umask 022

tab=$(printf '\t')
newline='
'
install=$(cd ../.. && pwd -P) || exit 1
journal=$install/.norvak_install # lines of: what to do, mode, owner and group, path
staged=.norvak-new
backup=.norvak-old

fail() {
  printf 'update: %s\n' "$*" >&2
  exit 1
}

exists() {
  [ -e "$1" ] || [ -L "$1" ]
}

# Undoes what the journal says, as far as it was done. Takes no disk space.
restore() {
  [ -f "$journal" ] || return 0
  while IFS=$tab read -r state mode owner path; do
    target=$install/$path
    rm -f "$target$staged"
    case $state in
      old)
        if exists "$target$backup"; then
          # Not with mv alone: it does nothing if both names are links to the same file.
          rm -f "$target" || return 1
          mv "$target$backup" "$target" || return 1
        fi
        ;;
      new) rm -f "$target" || return 1 ;;
      newdir) if [ -d "$target" ]; then rmdir "$target" || return 1; fi ;;
      olddir)
        chown "$owner" "$target" || return 1
        chmod "$mode" "$target" || return 1
        ;;
    esac
  done <"$journal"
  rm -f "$journal"
}

# Removes the old files of an installation that is complete. What stays is left to the next run.
discard_backup() {
  [ -f "$journal.done" ] || return 0
  while IFS=$tab read -r state mode owner path; do
    rm -f "$install/$path$backup" || return 0
  done <"$journal.done"
  rm -f "$journal.done"
}

verify() {
  [ -f "$install/config.xml" ] || fail "$install is not the agent's install directory"
  printf '%s  digests\n' "$digests_md5" | md5sum -c >/dev/null || fail 'the package is damaged'
  md5sum -c digests >/dev/null || fail 'the package is damaged'
  # shellcheck disable=SC2046 # the fields of the last line
  set -- $(df -Pk "$install" | tail -n 1)
  [ "${4:-0}" -ge "$need_kib" ] || fail "$need_kib KiB are needed below $install"
  while IFS=$tab read -r type mode owner group path; do
    target=$install/$path
    case $type in
      file | link | remove)
        if [ -d "$target" ] && [ ! -L "$target" ]; then fail "$target is a directory"; fi
        rm -f "$target$backup" # nobody's: there is no journal now
        ;;
      dir) if exists "$target" && [ ! -d "$target" ]; then fail "$target is not a directory"; fi ;;
    esac
  done <manifest
}

# Directories come last and each after what it contains, so that they are empty when it is their
# turn.
write_journal() {
  directories=
  while IFS=$tab read -r type mode owner group path; do
    target=$install/$path
    case $type in
      file | link | remove)
        if exists "$target"; then state=old; else state=new; fi
        printf '%s\t-\t-\t%s\n' "$state" "$path" || return 1
        ;;
      dir)
        if [ -d "$target" ]; then
          # shellcheck disable=SC2046 # two fields
          set -- olddir $(stat -L -c '%a %u:%g' "$target")
          [ $# -eq 3 ] || return 1
        else
          set -- newdir - -
        fi
        directories=$1$tab$2$tab$3$tab$path$newline$directories
        ;;
    esac
  done <manifest
  printf '%s' "$directories"
}

stage() {
  while IFS=$tab read -r type mode owner group path; do
    target=$install/$path
    case $type in
      dir)
        [ -d "$target" ] || mkdir "$target" || fail "cannot create $target"
        chown "$owner:$group" "$target" || fail "cannot change $target"
        chmod "$mode" "$target" || fail "cannot change $target"
        ;;
      file)
        cp "payload/$path" "$target$staged" || fail "cannot stage $target"
        # The owner first: a change of the owner clears the set-user-ID bit.
        chown "$owner:$group" "$target$staged" || fail "cannot stage $target"
        chmod "$mode" "$target$staged" || fail "cannot stage $target"
        ;;
      link)
        cp -P "payload/$path" "$target$staged" || fail "cannot stage $target"
        chown -h "$owner:$group" "$target$staged" || fail "cannot stage $target"
        ;;
    esac
  done <manifest
}

keep_backup() {
  while IFS=$tab read -r state mode owner path; do
    target=$install/$path
    if [ "$state" = old ]; then
      ln "$target" "$target$backup" || fail "cannot keep $target"
    fi
  done <"$journal"
}

switch() {
  while IFS=$tab read -r type mode owner group path; do
    target=$install/$path
    case $type in
      file | link)
        # mv would move into a directory to which the old link leads.
        if [ -L "$target" ]; then rm -f "$target" || fail "cannot replace $target"; fi
        mv -f "$target$staged" "$target" || fail "cannot replace $target"
        ;;
      remove) rm -f "$target" || fail "cannot remove $target" ;;
    esac
  done <manifest
}

# $1: pre or post
run_scripts() {
  while IFS=$tab read -r type mode owner group path; do
    if [ "$type" = "$1" ]; then
      sh "payload/$path" "$install" </dev/null || fail "$path failed"
    fi
  done <manifest
}

# shellcheck disable=SC2317 # called by the trap
at_end() {
  status=$?
  trap '' HUP INT TERM
  rm -f "$journal.new"
  restore || printf 'update: cannot restore the old files; the next run tries again\n' >&2
  exit "$status"
}

trap 'exit 1' HUP INT TERM
trap at_end EXIT

restore || fail 'cannot restore what an interrupted installation left'
discard_backup
verify
write_journal >"$journal.new" || fail "cannot write $journal"
mv -f "$journal.new" "$journal" || fail "cannot write $journal"
stage
run_scripts pre
sync # a power cut must not find switched files without contents, or without a journal
keep_backup
switch
run_scripts post
# The updater records this version. An automatic run has downloaded it; a manual one has not.
printf '%s\n' "$version" >../new_version.new || fail 'cannot write the version'
mv -f ../new_version.new ../new_version || fail 'cannot write the version'
sync
mv -f "$journal" "$journal.done" || fail 'cannot complete the installation'
discard_backup
exit 0
