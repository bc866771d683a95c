import pytest
from machine import DAEMON, run, wait_until


@pytest.fixture(autouse=True)
def fresh_start(request):
    """Forgets earlier restarts, and waits for the daemon."""
    if "package" not in request.keywords:
        run("systemctl", "reset-failed", DAEMON.name)
        wait_until(DAEMON.is_active, 60, "the daemon runs")
