"use strict";
const source = new EventSource("/events");
const show = (event) => {
    document.getElementById("events").textContent += event.type + " " + event.data + "\n";
};
["screen", "app", "sync", "log"].forEach((name) => source.addEventListener(name, show));
