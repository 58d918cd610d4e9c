"""A daemon that does not know the latest calls."""

import subprocess

import system


def test_kelv_status_says_that_the_daemon_is_older(fake):
    result = subprocess.run([system.BUILD / "apps/status/kelv-status"], capture_output=True, text=True, timeout=20)
    assert ("ok    login: the daemon accepted a ticket\n"
            "?     source: unknown, the daemon is older than kelv-status\n"
            "      systemctl restart tovric-vessad, after an update\n") in result.stdout
    assert [call.method for call in fake.calls] == ["AcquireLocalTicket", "Login", "QueryStatus", "Logout"]
