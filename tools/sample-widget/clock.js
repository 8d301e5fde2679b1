// Shows the local time, refreshed every second.
(function () {
  var clock = document.getElementById("clock");
  function pad(n) { return (n < 10 ? "0" : "") + n; }
  function tick() {
    var now = new Date();
    clock.textContent = pad(now.getHours()) + ":" + pad(now.getMinutes()) +
        ":" + pad(now.getSeconds());
  }
  tick();
  setInterval(tick, 1000);
})();
