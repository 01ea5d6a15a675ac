# Downloads URL with a real headless Chromium, driven through its DevTools
# protocol (a minimal WebSocket client, standard library only), into DEST.
# Prints the suggested file name and the download's end state.
# Usage: python3 browser_download.py DEBUG_PORT URL DEST
import base64, json, os, socket, subprocess, sys, time, urllib.request

port, url, dest = int(sys.argv[1]), sys.argv[2], sys.argv[3]
browser = subprocess.Popen(
    ["chromium", "--headless=new", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
     "--disable-background-networking", "--disable-component-update", "--disable-sync",
     "--user-data-dir=" + os.path.join(dest, ".profile"), "--remote-debugging-port=%d" % port, "about:blank"],
    stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
try:
    for _ in range(200):
        try:
            version = json.load(urllib.request.urlopen("http://127.0.0.1:%d/json/version" % port))
            break
        except OSError:
            time.sleep(0.1)
    host, path = version["webSocketDebuggerUrl"][len("ws://"):].split("/", 1)
    sock = socket.create_connection((host.split(":")[0], int(host.split(":")[1])))
    key = base64.b64encode(os.urandom(16)).decode()
    sock.sendall(("GET /%s HTTP/1.1\r\nHost: %s\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                  "Sec-WebSocket-Key: %s\r\nSec-WebSocket-Version: 13\r\n\r\n" % (path, host, key)).encode())
    pending = b""
    while b"\r\n\r\n" not in pending:
        pending += sock.recv(4096)
    pending = pending.split(b"\r\n\r\n", 1)[1]

    def send(message):
        data, mask = json.dumps(message).encode(), os.urandom(4)
        size = bytes([0x80 | len(data)]) if len(data) < 126 else bytes([0x80 | 126]) + len(data).to_bytes(2, "big")
        sock.sendall(bytes([0x81]) + size + mask + bytes(b ^ mask[i % 4] for i, b in enumerate(data)))

    def receive():
        global pending
        def need(count):
            global pending
            while len(pending) < count:
                pending += sock.recv(65536)
        need(2)
        size, start = pending[1] & 127, 2
        if size == 126:
            need(4)
            size, start = int.from_bytes(pending[2:4], "big"), 4
        elif size == 127:
            need(10)
            size, start = int.from_bytes(pending[2:10], "big"), 10
        need(start + size)
        message, pending = pending[start:start + size], pending[start + size:]
        return json.loads(message)

    send({"id": 1, "method": "Browser.setDownloadBehavior",
          "params": {"behavior": "allow", "downloadPath": dest, "eventsEnabled": True}})
    send({"id": 2, "method": "Target.createTarget", "params": {"url": url}})
    name, deadline = None, time.time() + 60
    while time.time() < deadline:
        event = receive()
        if event.get("method") == "Browser.downloadWillBegin":
            name = event["params"]["suggestedFilename"]
        elif event.get("method") == "Browser.downloadProgress" and event["params"]["state"] != "inProgress":
            print(name, event["params"]["state"])
            break
finally:
    browser.kill()
    browser.wait()
