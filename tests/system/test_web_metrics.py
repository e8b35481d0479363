"""The metrics of zevweb: read by a real Prometheus, and checked by its tools."""

import json
import re
import subprocess
import time
import urllib.error
import urllib.parse
import urllib.request
from pathlib import Path

import pytest

# `api`, `box` and `web` are fixtures.
from harness import settings
from harness.access import box
from harness.impostors import FakeDaemon
from harness.waiting import free_port, wait_until
from harness.web_interface import api, behind_proxy, machine, person, web

PACKAGING = settings.REPOSITORY / "packaging"
OPEN_METRICS = "application/openmetrics-text; version=1.0.0; charset=utf-8"
PLAIN = "text/plain; version=0.0.4; charset=utf-8"


def metrics(api, accept="", **query) -> tuple[str, str]:
    """Type and text."""
    status, kind, body = api.request("GET", "/metrics", list(query.items()), None,
                                     {"Accept": accept} if accept else {})
    assert status == 200
    return kind, body.decode()


def value(text: str, series: str) -> float:
    found = re.search(rf"^{re.escape(series)} (.*)$", text, re.MULTILINE)
    assert found, f"there is no {series}"
    return float(found[1])


def promtool(*arguments, text: str = "") -> None:
    done = subprocess.run(["promtool", *arguments], input=text, capture_output=True, text=True,
                          check=False)
    assert done.returncode == 0, done.stdout + done.stderr


def expressions() -> list[str]:
    """Those of the dashboard, with values for what it fills in."""
    board = json.loads((PACKAGING / "grafana/zevd.json").read_text())
    found = [target["expr"] for panel in board["panels"] for target in panel["targets"]]
    return [expr.replace("$__rate_interval", "5m").replace("$instance", ".*") for expr in found]


def is_ready(port: int) -> bool:
    """True when a Prometheus takes questions."""
    try:
        with urllib.request.urlopen(f"http://127.0.0.1:{port}/-/ready", timeout=10):
            return True
    except urllib.error.URLError:
        return False


def test_metrics_tell_what_happened(station, box, api):
    user = station.attach("box", mode="ro")
    box.send(b"two\r\nlines\r\n")
    user.expect(b"lines\r\n")
    wait_until(lambda: value(metrics(api)[1], "zevd_console_received_lines_total") == 2,
               what="the lines")
    _, text = metrics(api)
    for series, wanted in {
            "zevd_up": 1, 'zevd_consoles{state="in-use"}': 1, 'zevd_consoles{state="refused"}': 0,
            'zevd_users{mode="read-only"}': 1, 'zevd_users{mode="shared"}': 0,
            "zevd_console_connections_total": 1, 'zevd_refusals_total{number="004"}': 0,
            'zevd_consoles_with_output_within{seconds="3600"}': 1,
            'zevd_journal_state{state="off"}': 1}.items():
        assert value(text, series) == wanted, series
    assert value(text, "zevd_memory_bytes") > 1 << 20
    assert 'console="box"' not in text
    _, text = metrics(api, consoles="1")
    assert value(text, 'zevd_console_users{console="box"}') == 1


@pytest.mark.parametrize("consoles", ["0", "1"])
def test_promtool_finds_nothing_wrong(station, box, api, consoles):
    kind, text = metrics(api, consoles=consoles)
    assert kind == PLAIN
    promtool("check", "metrics", text=text)
    kind, text = metrics(api, OPEN_METRICS + ",text/plain;q=0.5", consoles=consoles)
    assert kind == OPEN_METRICS and text.endswith("\n# EOF\n")


def test_a_daemon_that_is_away_is_a_metric(station, tmp_path):
    with behind_proxy(station, tmp_path, main_port=free_port()) as web:
        _, text = metrics(person(web))
    assert text == ("# HELP zevd_up 1 while the daemon answers.\n# TYPE zevd_up gauge\n"
                    "zevd_up 0\n")


def test_rules_and_dashboard_are_sound(station, box, api, tmp_path):
    rules = PACKAGING / "prometheus/zevd.rules.yml"
    promtool("check", "rules", str(rules))
    promtool("test", "rules", str(PACKAGING / "prometheus/zevd.rules.test.yml"))
    promtool("check", "config", "--syntax-only", str(PACKAGING / "prometheus/zevd.scrape.yml"))
    recorded = {"groups": [{"name": "board", "rules": [
        {"record": f"board:{i}", "expr": expr} for i, expr in enumerate(expressions())]}]}
    (tmp_path / "board.yml").write_text(json.dumps(recorded))
    promtool("check", "rules", str(tmp_path / "board.yml"))
    _, text = metrics(api)
    # There is no reload yet, so what tells of the last one is missing.
    known = set(re.findall(r"^# TYPE (\S+)", text, re.MULTILINE)) | {"zevd_last_reload_done"}
    used = set(re.findall(r"\bzevd_[a-z_]+", " ".join(expressions()) + " ".join(
        re.findall(r"expr: (.*)", rules.read_text()))))
    assert used <= known


def test_ten_thousand_consoles_are_counted(station, tmp_path):
    now = int(time.time())
    status = "".join(json.dumps({
        "console": f"console{i}", "state": "connected", "since": now - i, "last_output": now - i,
        "users": [{"user": "ann", "given_user": None, "from": "10.0.0.1", "given_from": None,
                   "mode": "shared", "since": now}] if i % 10 == 0 else []}) + "\n"
                     for i in range(10_000))
    with FakeDaemon(status=status, stats='{"started": 1}\n') as daemon, \
            behind_proxy(station, tmp_path, main_port=daemon.port) as web:
        api = person(web)
        _, text = metrics(api)
        assert value(text, 'zevd_users{mode="shared"}') == 1000
        assert value(text, 'zevd_consoles{state="connected"}') == 10_000

        def asked_anew() -> bool:
            metrics(api)
            return daemon.commands.count("status") == 2

        wait_until(asked_anew, what="a scrape that asks the daemon again")


def test_a_real_prometheus_reads_them(station, box, web, tmp_path):
    secret = web.start().token("prometheus")
    (tmp_path / "token").write_text(secret)
    port = free_port()
    scrape = {"job_name": "zevd", "scheme": web.scheme, "params": {"consoles": ["1"]},
              "authorization": {"credentials_file": str(tmp_path / "token")},
              "tls_config": {"insecure_skip_verify": True},
              "static_configs": [{"targets": [f"127.0.0.1:{web.port}"]}]}
    (tmp_path / "prometheus.yml").write_text(json.dumps({
        "global": {"scrape_interval": "1s", "evaluation_interval": "1s"},
        "rule_files": [str(PACKAGING / "prometheus/zevd.rules.yml")], "scrape_configs": [scrape]}))

    def query(expr: str) -> list[dict]:
        address = f"http://127.0.0.1:{port}/api/v1/query?" + urllib.parse.urlencode({"query": expr})
        with urllib.request.urlopen(address, timeout=10) as answer:
            return json.load(answer)["data"]["result"]

    with open(tmp_path / "output", "wb") as output, subprocess.Popen(
            ["prometheus", f"--config.file={tmp_path}/prometheus.yml",
             f"--storage.tsdb.path={tmp_path}/data", f"--web.listen-address=127.0.0.1:{port}"],
            stdout=output, stderr=output) as prometheus:
        try:
            wait_until(lambda: is_ready(port), 20, "Prometheus")
            wait_until(lambda: query("zevd_up == 1") and query('up{job="zevd"} == 1'), 20,
                       "a scrape")
            series, = query('zevd_console_up{console="box"}')
            assert (series["metric"]["state"], series["value"][1]) == ("connected", "1")
            assert query("zevd_console_connections_total")[0]["value"][1] == "1"
            for expr in expressions():
                query(expr)
            station.stop()
            wait_until(lambda: query("zevd_up == 0"), 20, "the end of the daemon")
        finally:
            prometheus.kill()
