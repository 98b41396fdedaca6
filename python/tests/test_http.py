"""The broker host's pages, JSON API and metrics, against a running oxbroker fed by oxsim."""

import http.client
import json
import os
import re
import resource
import socket
import subprocess
import urllib.error
import urllib.request

import pytest
from prometheus_client.parser import text_string_to_metric_families

from helpers import poll_until
from oxclient import OXProxy, describe

DEVICE = "OXVideoDevice"
LIVE_LIMIT = 4  # oxbroker's default --max-live-views
JPEG_START = b"\xff\xd8"


def get(broker, path, timeout=10):
    """(status, content type, body) of a GET."""
    try:
        with urllib.request.urlopen(broker.http_url + path, timeout=timeout) as response:
            return response.status, response.headers["Content-Type"], response.read()
    except urllib.error.HTTPError as error:
        return error.code, error.headers["Content-Type"], error.read()


def first_part(broker, path):
    """The status and the first JPEG part of a live stream."""
    host, port = broker.http_url[len("http://"):].rsplit(":", 1)
    connection = http.client.HTTPConnection(host, int(port), timeout=10)
    connection.request("GET", path)
    response = connection.getresponse()
    if response.status != 200:
        return response.status, response.getheader("Content-Type"), response.read()
    head = b""
    while b"\r\n\r\n" not in head:
        head += response.read(1)
    length = int(re.search(rb"Content-Length: (\d+)", head).group(1))
    part = response.read(length)
    connection.close()
    return 200, response.getheader("Content-Type"), part


def subscribers(broker):
    status = json.loads(get(broker, "/api/devices/" + DEVICE)[2])
    return [entry["id"] for entry in status["kinds"].get("subscriber", [])]


def check_host(broker, body):
    host = json.loads(body)
    assert [m["name"] for m in host["modules"] if m["status"]] == [DEVICE]
    assert any(s["name"].startswith("oxsim") and s["address"] == "127.0.0.1"
               for s in host["sessions"]), host["sessions"]
    assert host["uptimeSeconds"] > 0 and host["calls"] > 0


def check_module(broker, body):
    # Every publication as the method table has it, in publication order.
    expected = describe(OXProxy(DEVICE, broker.host, broker.port))
    module = json.loads(body)
    assert module["description"] == expected["description"]
    assert module["examples"] == expected["examples"]
    assert len(module["publications"]) == 52 + 32 == len(expected["methods"])
    for shown, method in zip(module["publications"], expected["methods"]):
        for key in ("name", "description", "flags", "parameters", "return", "examples"):
            assert shown[key] == method[key], (method["name"], key)


def check_device(broker, body):
    kinds = json.loads(body)["kinds"]
    assert [c["id"] for c in kinds["camera"]] == ["0", "1"]
    assert {"resolution", "colorSpace", "frameRate", "grabber", "model",
            "kCameraFrameRateID (15)"} <= set(kinds["camera"][0]["fields"])


def check_metrics(broker, body):
    names = {family.name for family in text_string_to_metric_families(body.decode())}
    assert {"ox_host_calls", "ox_host_call_duration_seconds", "ox_host_sessions",
            "ox_host_queued_requests", "ox_host_reply_bytes"} <= names


def check_live(broker, body):
    assert body.startswith(JPEG_START) and len(body) > 500


ENDPOINTS = [
    # path, status, content type, check of the body
    ("/", 200, "text/html", lambda b, body: b"/static/index.js" in body),
    ("/modules/" + DEVICE, 200, "text/html", lambda b, body: b"search" in body),
    ("/devices/" + DEVICE, 200, "text/html", lambda b, body: b"device.js" in body),
    ("/live", 200, "text/html", lambda b, body: b"live.js" in body),
    ("/static/style.css", 200, "text/css", None),
    ("/static/live.js", 200, "", lambda b, body: b"/live/stream" in body),
    ("/api/host", 200, "application/json", check_host),
    ("/api/modules/" + DEVICE, 200, "application/json", check_module),
    ("/api/devices/" + DEVICE, 200, "application/json", check_device),
    ("/api/live", 200, "application/json",
     lambda b, body: json.loads(body) == {"limit": LIVE_LIMIT, "views": []}),
    ("/api/formats", 200, "application/json",
     lambda b, body: len(json.loads(body)["colorSpaces"]) == 10),
    ("/metrics", 200, "text/plain", check_metrics),
    ("/live/stream?resolution=qqvga&colorspace=hsy&fps=5", 200, "multipart/x-mixed-replace",
     check_live),
    # Bad requests: a clear 4xx with the reason.
    ("/modules/Nope", 404, "application/json", "no module Nope"),
    ("/api/modules/Nope", 404, "application/json", "no module Nope"),
    ("/devices/OXMemory", 404, "application/json", "no module OXMemory with a status"),
    ("/api/devices/Nope", 404, "application/json", "no module Nope"),
    ("/nothing/here", 404, "application/json", "nothing at /nothing/here"),
    ("/live/stream?colorspace=cmyk", 400, "application/json", "unknown colour space 'cmyk'"),
    ("/live/stream?colorspace=%zz%", 400, "application/json", "malformed request target"),
    ("/static/..%2F..%2FCMakeLists.txt", 404, "application/json", "nothing at /static/"),
    ("/static/../../CMakeLists.txt", 404, "application/json", "nothing at /static/"),
    ("/static/.hidden", 404, "application/json", "nothing at /static/"),
    ("/live/stream?resolution=8k", 400, "application/json", "unknown resolution '8k'"),
    ("/live/stream?camera=left", 400, "application/json", "camera must be a whole number"),
    ("/live/stream?fps=0", 400, "application/json", "fps must be a whole number from 1 to 30"),
    ("/live/stream?camera=0&camera=1", 400, "application/json", "camera is given more than once"),
    ("/live/stream?zoom=2", 400, "application/json", "unknown parameter 'zoom'"),
    ("/live/stream?camera=9", 400, "application/json", "is not a valid camera index"),
]


# Guards against an endpoint that answers wrongly, and against a bad request that gets no clear
# refusal or leaves the host unable to serve (or a live view subscribed).
@pytest.mark.parametrize("path,status,content_type,check", ENDPOINTS,
                         ids=[e[0] for e in ENDPOINTS])
def test_every_endpoint(scene, path, status, content_type, check):
    if path.startswith("/live/stream") and status == 200:
        got, got_type, body = first_part(scene, path)
    else:
        got, got_type, body = get(scene, path)
    assert got == status, body[:300]
    assert got_type.startswith(content_type)
    if isinstance(check, str):
        assert check in json.loads(body)["error"]
    elif check is not None:
        assert check(scene, body) in (None, True), body[:300]  # the check functions assert
    assert get(scene, "/api/host")[0] == 200
    assert poll_until(lambda: not any(s.startswith("http-live") for s in subscribers(scene)), 5)


HEAD_LINE = b"X-Filler: " + b"x" * 100 + b"\r\n"
RAW_REQUESTS = [
    # what is sent, status, text of the refusal
    (b"POST /api/host HTTP/1.1\r\nHost: h\r\nContent-Length: 2\r\n\r\nhi", 405,
     "only GET is served, not POST"),
    (b"GET /api/host HTTP/1.1\r\nHost: h\r\nContent-Length: 3\r\n\r\nabc", 400,
     "a request here has no body"),
    (b"GET / HTTP/1.1\r\nHost: h\r\n" + HEAD_LINE * 1000 + b"\r\n", 431,
     "the request line and headers take more than 8192 bytes"),
    (b"NOT HTTP AT ALL\r\n\r\n", 400, "malformed request"),
    (b"GET //elsewhere/api/host HTTP/1.1\r\nHost: h\r\n\r\n", 400, "malformed request target"),
]


# Guards against requests that the host would read without bound (an endless head) or answer
# without a clear refusal.
def test_bad_requests_get_a_clear_refusal(scene):
    host, port = scene.http_url[len("http://"):].rsplit(":", 1)
    for sent, status, text in RAW_REQUESTS:
        with socket.create_connection((host, int(port)), timeout=10) as connection:
            connection.sendall(sent)
            response = http.client.HTTPResponse(connection)
            response.begin()
            assert (response.status, text in json.loads(response.read())["error"]) == (
                status, True), sent[:40]
    assert get(scene, "/api/host")[0] == 200


# Guards against live views that exhaust the host: of a thousand at once, the stated number is
# streamed and every other one refused with 429; closing them unsubscribes them all.
def test_a_thousand_live_views_at_once(scene):
    wanted = 1000
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    if soft < wanted + 200:
        resource.setrlimit(resource.RLIMIT_NOFILE, (min(hard, wanted + 1024), hard))
    host, port = scene.http_url[len("http://"):].rsplit(":", 1)
    request = ("GET /live/stream?fps=5 HTTP/1.1\r\nHost: %s\r\nConnection: close\r\n\r\n"
               % host).encode()
    sockets = []
    try:
        for _ in range(wanted):
            sockets.append(socket.create_connection((host, int(port)), timeout=20))
        for connection in sockets:
            connection.sendall(request)
        statuses = {}
        refusals = set()
        for connection in sockets:
            response = http.client.HTTPResponse(connection)
            response.begin()
            statuses[response.status] = statuses.get(response.status, 0) + 1
            if response.status == 429:
                refusals.add(json.loads(response.read())["error"])
        assert statuses == {200: LIVE_LIMIT, 429: wanted - LIVE_LIMIT}
        assert refusals == {"at most %d live views at once; close one (GET /api/live lists them)"
                            % LIVE_LIMIT}
        assert len(json.loads(get(scene, "/api/live")[2])["views"]) == LIVE_LIMIT
    finally:
        for connection in sockets:
            connection.close()
    assert poll_until(lambda: json.loads(get(scene, "/api/live")[2])["views"] == [], 10)
    assert poll_until(lambda: not any(s.startswith("http-live") for s in subscribers(scene)), 5)
    assert first_part(scene, "/live/stream?fps=5")[0] == 200


# Guards against metrics that a Prometheus parser rejects, and against a served rate that
# differs from what the subscriber itself measures.
def test_metrics_served_rate_matches_oxgrab(scene, tmp_path):
    grab = subprocess.Popen(
        [os.path.join(scene.bindir, "oxgrab"), "--url", scene.url, "--name", "t_rate", "--fps",
         "15", "--count", "75", "--out", str(tmp_path)], stdout=subprocess.PIPE, text=True)
    try:
        def served():
            families = text_string_to_metric_families(get(scene, "/metrics")[2].decode())
            return {sample.name: sample.value for family in families
                    for sample in family.samples if sample.labels.get("subscriber") == "t_rate"}
        assert poll_until(lambda: served().get("ox_subscriber_images_delivered_total", 0) >= 45,
                          15)
        samples = served()
        output, _ = grab.communicate(timeout=30)
    finally:
        if grab.poll() is None:
            grab.kill()
            grab.wait()
    measured = float(re.search(r"at ([\d.]+) images/s", output).group(1))
    assert abs(samples["ox_subscriber_served_rate"] - measured) <= 0.1 * measured, (samples,
                                                                                    measured)
    assert samples["ox_subscriber_conversions_total"] >= 1
    assert samples["ox_subscriber_converting_seconds_total"] > 0
    families = {f.name: f for f in text_string_to_metric_families(get(scene, "/metrics")[2].decode())}
    calls = [s for s in families["ox_host_calls"].samples
             if s.labels == {"module": DEVICE, "method": "getImageRemote"}]
    assert calls and calls[0].value >= 75
    buckets = [s for s in families["ox_host_call_duration_seconds"].samples
               if s.name.endswith("_bucket") and s.labels.get("method") == "getImageRemote"]
    assert buckets[-1].labels["le"] == "+Inf" and buckets[-1].value == calls[0].value
