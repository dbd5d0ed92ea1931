#!/bin/sh
# The feed's CI runs this after installing each package, as
# `sh test.sh NAME VERSION` (VERSION without the release), on an OpenWrt
# root where no service need be running.
case $1 in
zord)
	# The daemon runs on this target and knows its options; the router's
	# scripts parse under the target's shell.
	zord -h 2>&1 | grep -q '^Usage: ' || exit 1
	for script in /etc/init.d/zord /usr/libexec/zord-watchdog /usr/libexec/zord/zord \
		/usr/libexec/rpcd/zord /etc/hotplug.d/iface/95-zord; do
		sh -n "$script" || exit 1
	done
	/usr/libexec/zord-watchdog 2>&1 | grep -q '^usage: zord-watchdog check' || exit 1
	/usr/libexec/rpcd/zord list | grep -qF '{"status":{}}'
	;;
zordctl)
	zordctl --version | grep -qF "zordctl $2"
	;;
*)
	echo "test.sh: no test for $1" >&2
	exit 1
	;;
esac
