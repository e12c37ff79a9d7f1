// Light or dark as the system says, or as chosen here.

import { recall, remember } from "./memory.js";

const KEY = "theme";

function apply(theme) {
    if (theme) {
        document.documentElement.dataset.theme = theme;
    } else {
        delete document.documentElement.dataset.theme;
    }
}

export function initTheme(select) {
    select.value = recall(KEY) ?? "";
    apply(select.value);
    select.addEventListener("change", () => {
        remember(KEY, select.value);
        apply(select.value);
    });
}
