#!/usr/bin/env bash
# Runs in a fresh root as root: the packages of /packages/previous are installed and used by an ordinary user,
# upgraded to those of /packages/new while clients are connected, and purged.
set -Eeuo pipefail
shopt -s extglob
trap 'echo "check-installed: line $LINENO: $BASH_COMMAND" >&2; cat /tmp/{abd,follow,hold}.log >&2' ERR

say() { printf '\n==> %s\n' "$*"; }
install_from() {
  apt-get install -q -y --no-install-recommends "$1"/!(*-dbgsym*).deb >>/tmp/apt.log 2>&1 ||
    { tail -n 20 /tmp/apt.log; return 1; }
}
eventually() { # COMMAND...
  local end=$((SECONDS + 20))
  while ((SECONDS < end)); do
    "$@" >/dev/null 2>&1 && return
    sleep 0.1
  done
  "$@"
}

say "install"
touch /tmp/{abd,follow,hold}.log
apt-get update -q >/tmp/apt.log
install_from /packages/previous
useradd --create-home tester
runtime=/run/user/$(id -u tester)
install -d -m 0755 /run/user && install -d -m 0700 -o tester "$runtime"
user=(setpriv --reuid tester --regid tester --clear-groups
  env -C /home/tester HOME=/home/tester "XDG_RUNTIME_DIR=$runtime" ABD_LOG=stderr)
[[ -z $(find / -xdev -name Entitlements.plist -perm /022) ]]
[[ -z $(find /etc/systemd/user -name 'abd*') ]] # nobody's socket is enabled but by the user

say "the programs of the document about the client library are compiled and run"
cd /tmp
awk '/^```cpp/ {out = "program" ++n ".cc"; next} /^```/ {out = ""} out {print > out}' /usr/share/doc/abd/client.md
for program in program1 program2; do
  c++ -std=c++20 -Wall -Wextra -o $program $program.cc $(pkg-config --cflags --libs ambrel)
done
"${user[@]}" python3 /packages/hand_over.py /usr/bin/abd >>/tmp/abd.log 2>&1 &
manager=$!
"${user[@]}" /usr/share/doc/abd-examples/examples/install-into --home
eventually "${user[@]}" abctl show org.example.postcards.share
"${user[@]}" /tmp/program1 | tee host.out
grep -q '^org.example.postcards.share: /home/tester/' host.out

say "upgrade while a host follows and a plug-in is on hold"
card=org.example.postcards.share
last_news() { grep " $card\$" /tmp/follow.log | tail -n 1 | grep -q "^$1"; }
daemon() { cat "/proc/$manager/task/$manager/children"; }
state() { # everything that an upgrade may not change
  "${user[@]}" bash -c 'rm -f elections; abctl match --all; abctl match --all --json | grep -i uuid
    abctl elections export elections; cat elections'
}
"${user[@]}" /tmp/program2 >/tmp/follow.log 2>&1 &
follower=$!
eventually last_news +
"${user[@]}" abctl elect org.example.typewriter.keyboard ignore >/dev/null
known=$(state)
"${user[@]}" abctl hold --plugin $card >/tmp/hold.log 2>&1 &
holder=$!
eventually last_news -
before=$(daemon)
install_from /packages/new
[[ $(daemon) == "$before" ]] # it serves on until the user restarts it
"${user[@]}" abctl show $card >/dev/null
kill -HUP $manager
status=0
wait $holder || status=$?
[[ $status -eq 4 ]]    # holds end with the daemon
eventually last_news + # and the host hears of it from the new one
[[ $(daemon) != "$before" && $(state) == "$known" ]]
kill $follower

say "the two minutes of the README"
readme=/usr/share/doc/abd/README.md
diff <(awk '/^\$ abctl match/ {on = 1; next} on && /^$/ {exit} on' $readme) \
  <("${user[@]}" abctl match --rule ZQExtensionPointName=com.veltra.preview 2>&1)
mkdir /home/tester/Notes.app
sed -n 's/^\$ \([^#]*\).*/\1/p' $readme | while read -r command; do
  "${user[@]}" timeout --preserve-status 2 bash -c "$command" </dev/null >/tmp/command.log 2>&1 ||
    { echo "status $? of: $command"; cat /tmp/command.log; exit 1; }
done

say "purge"
kill $manager
wait $manager
apt-get purge -q -y abd libambrel1 libambrel-dev abd-examples >>/tmp/apt.log 2>&1
left=$(find / -xdev \( -path /home -o -path /packages -o -path /tmp \) -prune -o \
  \( -name '*abd.s*' -o -name '*ambrel*' -o -name 'abd*' -o -name abctl \) -print)
[[ -z $left ]] || { echo "left over: $left"; exit 1; }
for kept in .local/state/veltra/com.veltra.ambrel/Annotations .local/state/veltra/Hollin/Registry.sqlite \
  .local/share/veltra/Applications/ShareDesk.app/share-desk; do
  [[ -s /home/tester/$kept ]] # what is the user's stays
done
echo "all held"
