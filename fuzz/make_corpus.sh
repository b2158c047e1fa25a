#!/usr/bin/env bash
# Rewrites the seeds of fuzz/corpus: the text ones here, the archives and images
# with the library (murmora-fuzz-corpus, built into BUILD, default build/h-fuzz).
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/h-fuzz}
c=fuzz/corpus

seed() { mkdir -p "$c/$1"; printf '%s' "$3" >"$c/$1/$2"; }

seed service_date utc '2026-11-21T20:34:14.123+0000'
seed service_date offset '2024-02-29T23:59:59.999-0130'
seed service_date bad-day '2023-02-29T10:00:00.000+0000'
seed service_date short '2026-11-21T20:34:14+0000'

seed base64 plain 'TXVybW9yYQ=='
seed base64 one-pad 'YWI='
seed base64 empty ''
seed base64 junk $'TW\r\n91 cm*1v\tcmE='

thread='{"Id":"5f1","RootId":null,"Uid":"dev-1","Text":"The button is cut off","Author":"Ana","State":"Open","Image":{"Uri":"https://h/img/5f1.png"},"CreatedAt":"2026-11-21T20:34:14.123+0000","ModifiedAt":"2026-11-21T20:35:00.000+0000","CommentsCount":2}'
comment='{"Id":"6a2","RootId":"5f1","Uid":"dev-1","Text":"Fixed in 1.2","Author":"","CreatedAt":"2026-11-22T08:00:00.000+0100","ModifiedAt":"2026-11-22T08:00:00.000+0100"}'
seed service_json listing "[$thread,{\"Id\":\"5f0\",\"Text\":\"x\",\"State\":\"Resolved\",\"Image\":{},\"CommentsCount\":\"7\"}]"
seed service_json comments "[$comment]"
seed service_json empty '[]'
seed service_json error '{"code":107,"message":"Invalid application key"}'
seed service_json error-text-code '{"code":"-3","message":"x"}'
seed service_json nulls '[{"Id":null,"Image":null,"CommentsCount":null,"CreatedAt":null}]'

seed service_json answer-comment "$comment"
seed service_json answer-error '{"code":404,"message":"No such thread"}'
seed service_json answer-error-no-message '{"code":500}'
seed service_json answer-ok '{"ok":true}'
seed service_json answer-not-json '<html>502</html>'

cmake --build "$build" --target murmora-fuzz-corpus
QT_QPA_PLATFORM=offscreen "$build/fuzz/murmora-fuzz-corpus" fuzz
