# Downloads URL with a real headless Chromium, driven through its DevTools protocol (a
# minimal WebSocket client, standard library only), into DEST; prints the suggested file
# name and how the download ended. Usage: python3 browser_download.py DEBUG_PORT URL DEST
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
            address = json.load(urllib.request.urlopen("http://127.0.0.1:%d/json/version" % port))["webSocketDebuggerUrl"]
            break
        except OSError:
            time.sleep(0.1)
    host, path = address[len("ws://"):].split("/", 1)
    sock = socket.create_connection((host.split(":")[0], int(host.split(":")[1])))
    sock.sendall(("GET /%s HTTP/1.1\r\nHost: %s\r\nUpgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Key: %s\r\n"
                  "Sec-WebSocket-Version: 13\r\n\r\n" % (path, host, base64.b64encode(os.urandom(16)).decode())).encode())
    stream = sock.makefile("rb")
    while stream.readline() not in (b"\r\n", b""):
        pass

    def send(message):  # one masked text frame
        data, mask = json.dumps(message).encode(), os.urandom(4)
        size = bytes([0x80 | len(data)]) if len(data) < 126 else bytes([0x80 | 126]) + len(data).to_bytes(2, "big")
        sock.sendall(b"\x81" + size + mask + bytes(b ^ mask[i % 4] for i, b in enumerate(data)))

    def receive():  # one unmasked frame from the browser
        size = stream.read(2)[1] & 127
        size = int.from_bytes(stream.read({126: 2, 127: 8}[size]), "big") if size >= 126 else size
        return json.loads(stream.read(size))

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
