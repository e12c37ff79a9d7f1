// Files to and from the person at the page; nothing of them passes the server.

export function save(name, type, text) {
    const link = document.createElement("a");
    link.href = URL.createObjectURL(new Blob([text], { type }));
    link.download = name;
    link.click();
    // The browser has begun to read it by then.
    setTimeout(() => URL.revokeObjectURL(link.href), 10000);
}

// Calls use(text) with the file that was chosen.
export function choose(accept, use) {
    const input = document.createElement("input");
    input.type = "file";
    input.accept = accept;
    input.addEventListener("change", async () => {
        if (input.files.length > 0) {
            use(await input.files[0].text());
        }
    });
    input.click();
}
