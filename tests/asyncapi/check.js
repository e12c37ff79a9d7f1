// Fails when the document is no valid AsyncAPI: node check.js FILE
const { readFileSync } = require("fs");
const { Parser } = require("@asyncapi/parser");

new Parser().parse(readFileSync(process.argv[2], "utf8")).then(({ document, diagnostics }) => {
    const errors = diagnostics.filter(({ severity }) => severity === 0);
    for (const { message, path, range } of errors) {
        console.error(`line ${range.start.line + 1}: ${path.join(".")}: ${message}`);
    }
    if (!document || errors.length > 0) {
        process.exit(1);
    }
    console.log(`${document.channels().length} channels and ${document.operations().length} operations are valid`);
});
