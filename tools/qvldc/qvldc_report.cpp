#include "qvldc_report.h"

#include <ctype.h>
#include <math.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>

namespace {

const int32_t kNearBudgetPercent = 80;   // a loss of this share of the budget counts as near it

// Path keys in the order the summary lists them.
const int32_t kPathOrder[] = {LDC_PATH_MESH, LDC_PATH_FACE, LDC_PATH_LENS, LDC_PATH_GLOBAL, LDC_PATH_FALLBACK, LDC_PATH_COPY};

std::string Escape(const std::string &strText)
{
    std::string strOut;
    for (char c : strText) {
        switch (c) {
        case '&': strOut += "&amp;"; break;
        case '<': strOut += "&lt;"; break;
        case '>': strOut += "&gt;"; break;
        case '"': strOut += "&quot;"; break;
        default: strOut += c; break;
        }
    }
    return strOut;
}

std::string Format(const char *pcFormat, double dValue)
{
    char acText[64];
    snprintf(acText, sizeof(acText), pcFormat, dValue);
    return acText;
}

// A summary figure with its value in a data attribute, for scripts that read the page.
std::string Figure(const std::string &strKey, double dValue, const std::string &strText)
{
    return "<span data-key=\"" + strKey + "\" data-value=\"" + Format("%.6g", dValue) + "\">" + Escape(strText) +
           "</span>";
}

// A table cell that sorts by strSort.
std::string Cell(const std::string &strSort, const std::string &strHtml)
{
    return "<td data-sort=\"" + Escape(strSort) + "\">" + strHtml + "</td>";
}

std::string List(const std::vector<std::string> &vstrItems, const std::string &strClass = "")
{
    if (vstrItems.empty()) {
        return "";
    }
    std::string strHtml = strClass.empty() ? "<ul>" : "<ul class=\"" + strClass + "\">";
    for (const std::string &strItem : vstrItems) {
        strHtml += "<li>" + Escape(strItem) + "</li>";
    }
    return strHtml + "</ul>";
}

std::string FrameCell(const tagST_QV_REPORT_ROW &stRow)
{
    char acText[160];
    snprintf(acText, sizeof(acText), "%dx%d, ISO %d, faces %d given / %d valid", stRow.iWidth, stRow.iHeight,
             stRow.iISO, stRow.iFacesGiven, stRow.stPlan.iFaceNum);
    return Cell(stRow.strName, "<div class=\"name\">" + Escape(stRow.strName) + "</div>" + Escape(acText));
}

std::string DecisionCell(const tagST_QV_REPORT_ROW &stRow)
{
    const tagST_LDC_PLAN &stPlan = stRow.stPlan;
    std::vector<std::string> vstrWhy;
    vstrWhy.push_back("FDC mode " + std::to_string(stRow.iFDCMode));
    if (stPlan.iFitRounds > 0) {
        char acText[200];
        snprintf(acText, sizeof(acText), "face fit: %d round(s), strength %.4f, loss %d%% of a budget of %d%%",
                 stPlan.iFitRounds, (double)stPlan.fFitDegree, stPlan.iFitFovLost, stRow.iFovBudget);
        vstrWhy.push_back(acText);
    }
    // The copy path's words start with its key already.
    const std::string strKey = PathKey(stPlan.ePath);
    const std::string strWords = stRow.strPath.compare(0, strKey.size() + 2, strKey + ": ") == 0
                                     ? stRow.strPath.substr(strKey.size() + 2)
                                     : stRow.strPath;
    return Cell(strKey, "<b>" + strKey + "</b>: " + Escape(strWords) + List(vstrWhy));
}

std::string FacesCell(const tagST_QV_REPORT_ROW &stRow)
{
    std::vector<std::string> vstrFaces;
    for (size_t i = 0; i < stRow.stView.vstFaces.size(); i++) {
        const int32_t *piRect = stRow.stPlan.aiFaceRect[i];
        const tagST_QV_FACE_VIEW &stFace = stRow.stView.vstFaces[i];
        char acText[200];
        snprintf(acText, sizeof(acText), "%zu: [%d, %d, %d, %d] %s", i + 1, piRect[0], piRect[1], piRect[2], piRect[3],
                 stFace.bCut ? "cut" : "inside");
        vstrFaces.push_back(acText);
    }
    const int32_t iCut = CutFaceCount(stRow.stView);
    return Cell(std::to_string(iCut), std::to_string(iCut) + " cut" + List(vstrFaces));
}

std::string LinesCell(const tagST_QV_REPORT_ROW &stRow)
{
    const tagST_LDC_PLAN &stPlan = stRow.stPlan;
    if (!stPlan.bLineCheck) {
        return Cell("-1", "no line check");
    }
    const tagST_LINE_CHECK &stCheck = stPlan.stLineCheck;
    std::string strHtml = std::to_string(stCheck.iKept) + " kept, " + std::to_string(stCheck.iJudged) + " judged: " +
                          (stCheck.iVerdict == 1 ? "none bends" : "one bends");
    const int32_t iBent = stCheck.iJudged - 1;
    if (stCheck.iVerdict == 0 && iBent >= 0 && iBent < LDC_PLAN_MAX_LINES) {
        const stLine &stL = stPlan.astLines[iBent];
        char acText[200];
        snprintf(acText, sizeof(acText), "(%d, %d) - (%d, %d), theta %d", stL.Pnt0.x, stL.Pnt0.y, stL.Pnt1.x, stL.Pnt1.y,
                 stL.theta);
        std::vector<std::string> vstrBend = {acText};
        if (!stRow.strBendText.empty()) {
            vstrBend.push_back(stRow.strBendText);
        }
        strHtml += List(vstrBend, "bend");
    }
    return Cell(std::to_string(stCheck.iKept), strHtml);
}

// Everything a tuner should not miss about the frame.
std::vector<std::string> Warnings(const tagST_QV_REPORT_ROW &stRow)
{
    std::vector<std::string> vstrWarn;
    if (stRow.iRet != LDC_OK) {
        vstrWarn.push_back("IQV_LDC_Process returned " + std::to_string(stRow.iRet));
    }
    if (RowRefused(stRow)) {
        vstrWarn.push_back("correction refused: " + stRow.strPath);
    }
    if (CutFaceCount(stRow.stView) > 0) {
        vstrWarn.push_back(FacesText(stRow.stView));
    }
    if (WidestBorder(stRow.stView) > 0.0f) {
        vstrWarn.push_back(BorderText(stRow.stView));
    }
    return vstrWarn;
}

std::string Row(size_t uIndex, const tagST_QV_REPORT_ROW &stRow)
{
    const std::string strClass = RowRefused(stRow)                   ? "refused"
                                 : RowNearBudget(stRow)              ? "near"
                                 : CutFaceCount(stRow.stView) > 0 ? "cut"
                                                                     : "";
    const std::vector<std::string> vstrWarn = Warnings(stRow);
    std::string strHtml = "<tr id=\"frame" + std::to_string(uIndex + 1) + "\"" +
                          (strClass.empty() ? "" : " class=\"" + strClass + "\"") + ">";
    strHtml += Cell(std::to_string(uIndex + 1), std::to_string(uIndex + 1));
    strHtml += FrameCell(stRow);
    for (const tagST_QV_PICTURE &stPic : stRow.vstPictures) {
        const std::string strImg = stPic.strThumb.empty()
                                       ? Escape(stPic.strLabel)
                                       : "<img src=\"" + stPic.strThumb + "\" alt=\"" + Escape(stPic.strLabel) + "\">";
        strHtml += Cell(stPic.strLabel, stPic.strHref.empty()
                                            ? strImg
                                            : "<a href=\"" + Escape(stPic.strHref) + "\">" + strImg + "</a>");
    }
    strHtml += DecisionCell(stRow);
    strHtml += Cell(std::to_string(stRow.stPlan.iFovLost), std::to_string(stRow.stPlan.iFovLost));
    strHtml += Cell(Format("%.4f", stRow.stView.fZoom),
                    Format("%.3fx", stRow.stView.fZoom) + "<div class=\"small\">spans " +
                        Format("%.1f", stRow.stView.afShown[0]) + " % x " + Format("%.1f", stRow.stView.afShown[1]) +
                        " % of the input</div>");
    const tagST_QV_VIEW &stView = stRow.stView;
    strHtml += Cell(Format("%.2f", WidestBorder(stView)),
                    Format("%.1f", WidestBorder(stView)) + "<div class=\"small\">L " + Format("%.1f", stView.afBorder[QV_LEFT]) +
                        " T " + Format("%.1f", stView.afBorder[QV_TOP]) + " R " + Format("%.1f", stView.afBorder[QV_RIGHT]) +
                        " B " + Format("%.1f", stView.afBorder[QV_BOTTOM]) + "</div>");
    strHtml += FacesCell(stRow);
    strHtml += LinesCell(stRow);
    strHtml += Cell(std::to_string(stRow.iTimeMs), stRow.iTimeMs < 0 ? "-" : std::to_string(stRow.iTimeMs));
    strHtml += Cell(std::to_string(vstrWarn.size()), List(vstrWarn, "warn") + List(stRow.vstrLibrary, "lib"));
    return strHtml + "</tr>\n";
}

std::string Summary(const std::vector<tagST_QV_REPORT_ROW> &vstRows)
{
    std::vector<double> vdFov, vdMs;
    int32_t aiPaths[LDC_PATH_MESH + 1] = {0};
    int32_t iRefused = 0, iNear = 0, iCut = 0, iBorder = 0;
    size_t uWorstFov = 0;
    for (size_t i = 0; i < vstRows.size(); i++) {
        const tagST_QV_REPORT_ROW &stRow = vstRows[i];
        vdFov.push_back(stRow.stPlan.iFovLost);
        if (stRow.iTimeMs >= 0) {
            vdMs.push_back(stRow.iTimeMs);
        }
        if (stRow.stPlan.ePath >= 0 && stRow.stPlan.ePath <= LDC_PATH_MESH) {
            aiPaths[stRow.stPlan.ePath]++;
        }
        iRefused += RowRefused(stRow);
        iNear += RowNearBudget(stRow);
        iCut += CutFaceCount(stRow.stView) > 0;
        iBorder += WidestBorder(stRow.stView) > 0.0f;
        if (stRow.stPlan.iFovLost > vstRows[uWorstFov].stPlan.iFovLost) {
            uWorstFov = i;
        }
    }
    std::string strPaths;
    for (int32_t ePath : kPathOrder) {
        strPaths += (strPaths.empty() ? "" : ", ") +
                    Figure(std::string("path-") + PathKey(ePath), aiPaths[ePath],
                           std::string(PathKey(ePath)) + " " + std::to_string(aiPaths[ePath]));
    }
    const double dWorstFov = vdFov.empty() ? 0.0 : *std::max_element(vdFov.begin(), vdFov.end());
    const double dWorstMs = vdMs.empty() ? 0.0 : *std::max_element(vdMs.begin(), vdMs.end());
    std::string strHtml = "<table class=\"summary\">\n";
    strHtml += "<tr><th>frames</th><td>" + Figure("frames", (double)vstRows.size(), std::to_string(vstRows.size())) +
               "</td></tr>\n";
    strHtml += "<tr><th>paths taken</th><td>" + strPaths + "</td></tr>\n";
    strHtml += "<tr><th>field of view lost (as logged)</th><td>median " +
               Figure("fov-median", Median(vdFov), Format("%g %%", Median(vdFov))) + ", worst " +
               Figure("fov-worst", dWorstFov, Format("%g %%", dWorstFov)) +
               (vstRows.empty() ? std::string() : " (<a href=\"#frame" + std::to_string(uWorstFov + 1) + "\">frame " +
                                                    std::to_string(uWorstFov + 1) + "</a>)") +
               "</td></tr>\n";
    strHtml += "<tr><th>time per frame (as logged)</th><td>median " +
               Figure("ms-median", Median(vdMs), Format("%g ms", Median(vdMs))) + ", worst " +
               Figure("ms-worst", dWorstMs, Format("%g ms", dWorstMs)) + "</td></tr>\n";
    strHtml += "<tr><th>frames that stand out</th><td>" + Figure("refused", iRefused, std::to_string(iRefused)) +
               " refused, " + Figure("near-budget", iNear, std::to_string(iNear)) + " near the budget, " +
               Figure("faces-cut", iCut, std::to_string(iCut)) + " with a face cut, " +
               Figure("border", iBorder, std::to_string(iBorder)) + " repeating an edge</td></tr>\n";
    return strHtml + "</table>\n";
}

const char *const s_pcStyle =
    "body{font:13px/1.35 sans-serif;margin:16px;color:#222}h1{font-size:20px}"
    "table{border-collapse:collapse}td,th{border:1px solid #ccc;padding:4px;vertical-align:top}"
    "table.summary th{text-align:left;background:#f3f3f3}"
    "table.frames th{background:#eee;cursor:pointer;position:sticky;top:0}"
    "table.frames th.asc::after{content:' \\25B2'}table.frames th.desc::after{content:' \\25BC'}"
    "table.frames img{width:200px;display:block}.name{font-family:monospace;font-size:11px;word-break:break-all;max-width:220px}"
    "ul{margin:2px 0;padding-left:16px}.small{color:#666;font-size:11px}"
    "ul.warn{color:#a30}ul.lib{color:#666;font-size:11px}ul.bend{color:#b00}"
    "tr.refused td{background:#fde2e2}tr.refused td:first-child{border-left:5px solid #d00}"
    "tr.near td{background:#fff4cc}tr.near td:first-child{border-left:5px solid #e0a000}"
    "tr.cut td:first-child{border-left:5px solid #8a4fd0}"
    ".legend span{display:inline-block;padding:2px 8px;margin-right:8px}"
    ".legend .refused{background:#fde2e2;border-left:5px solid #d00}"
    ".legend .near{background:#fff4cc;border-left:5px solid #e0a000}.legend .cut{border-left:5px solid #8a4fd0}";

// Click a heading to sort by its column, again to reverse; numbers sort as numbers.
const char *const s_pcScript =
    "(function(){var t=document.getElementById('frames');var hs=t.tHead.rows[0].cells;"
    "for(var i=0;i<hs.length;i++){(function(c){hs[c].addEventListener('click',function(){"
    "var asc=!hs[c].classList.contains('asc');for(var k=0;k<hs.length;k++){hs[k].classList.remove('asc','desc');}"
    "hs[c].classList.add(asc?'asc':'desc');var b=t.tBodies[0];var rs=Array.prototype.slice.call(b.rows);"
    "rs.sort(function(x,y){var a=x.cells[c].getAttribute('data-sort'),d=y.cells[c].getAttribute('data-sort');"
    "var na=parseFloat(a),nd=parseFloat(d);var r=(!isNaN(na)&&!isNaN(nd))?na-nd:a.localeCompare(d);"
    "return asc?r:-r;});for(var j=0;j<rs.length;j++){b.appendChild(rs[j]);}});})(i);}})();";

}  // namespace

const char *PathKey(int32_t ePath)
{
    switch (ePath) {
    case LDC_PATH_LENS: return "lens";
    case LDC_PATH_FACE: return "face";
    case LDC_PATH_GLOBAL: return "global";
    case LDC_PATH_FALLBACK: return "fallback";
    case LDC_PATH_MESH: return "mesh";
    default: return "copy";
    }
}

bool RowRefused(const tagST_QV_REPORT_ROW &stRow)
{
    const tagST_LDC_PLAN &stPlan = stRow.stPlan;
    return stRow.iRet != LDC_OK || stPlan.bNotFinite || stPlan.eRefusal == LDC_REFUSAL_FOV ||
           stPlan.eRefusal == LDC_REFUSAL_FACE_EDGE || stPlan.eRefusal == LDC_REFUSAL_BAD_FACE;
}

bool RowNearBudget(const tagST_QV_REPORT_ROW &stRow)
{
    return stRow.stPlan.ePath == LDC_PATH_FACE && stRow.iFovBudget > 0 &&
           stRow.stPlan.iFovLost * 100 >= stRow.iFovBudget * kNearBudgetPercent;
}

std::string ReportHtml(const std::string &strTitle, const std::vector<tagST_QV_REPORT_ROW> &vstRows,
                       const std::vector<std::string> &vstrSkipped)
{
    std::string strHtml = "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n<title>qvldc report: " +
                          Escape(strTitle) + "</title>\n<style>" + s_pcStyle + "</style>\n</head>\n<body>\n";
    strHtml += "<h1>qvldc report: " + Escape(strTitle) + "</h1>\n" + Summary(vstRows);
    if (!vstrSkipped.empty()) {
        strHtml += "<p>Skipped, not a frame the library can take:</p>" + List(vstrSkipped, "warn") + "\n";
    }
    strHtml +=
        "<p class=\"legend\"><span class=\"refused\">correction refused (or the call failed)</span>"
        "<span class=\"near\">field of view lost near the budget (face path, at least 80 % of FOVLost)</span>"
        "<span class=\"cut\">a face leaves the frame</span>"
        "Click a picture for the full size, a heading to sort. Faces are the library's widened faces; the "
        "border is how far the output repeats the frame's edge where the warp ran out of source, in % of the "
        "width (left, right) or height (top, bottom); the zoom is the warp's at the frame centre.</p>\n";
    strHtml += "<table class=\"frames\" id=\"frames\">\n<thead><tr><th>#</th><th>frame</th>";
    if (!vstRows.empty()) {
        for (const tagST_QV_PICTURE &stPic : vstRows[0].vstPictures) {
            strHtml += "<th>" + Escape(stPic.strLabel) + "</th>";
        }
    }
    strHtml += "<th>decision and why</th><th>FOV lost %</th><th>zoom</th><th>border %</th><th>faces</th>"
               "<th>lines judged</th><th>ms</th><th>warnings</th></tr></thead>\n<tbody>\n";
    for (size_t i = 0; i < vstRows.size(); i++) {
        strHtml += Row(i, vstRows[i]);
    }
    strHtml += "</tbody>\n</table>\n<script>" + std::string(s_pcScript) + "</script>\n</body>\n</html>\n";
    return strHtml;
}

std::string RelativeLink(const std::string &strFromDir, const std::string &strPath)
{
    auto split = [](const std::string &strText) {
        std::vector<std::string> vstrParts;
        size_t uStart = 0;
        while (uStart <= strText.size()) {
            const size_t uSlash = std::min(strText.find('/', uStart), strText.size());
            if (uSlash > uStart) {
                vstrParts.push_back(strText.substr(uStart, uSlash - uStart));
            }
            uStart = uSlash + 1;
        }
        return vstrParts;
    };
    const std::vector<std::string> vstrFrom = split(strFromDir);
    const std::vector<std::string> vstrTo = split(strPath);
    size_t uCommon = 0;
    while (uCommon < vstrFrom.size() && uCommon + 1 < vstrTo.size() && vstrFrom[uCommon] == vstrTo[uCommon]) {
        uCommon++;
    }
    std::string strLink;
    for (size_t i = uCommon; i < vstrFrom.size(); i++) {
        strLink += "../";
    }
    for (size_t i = uCommon; i < vstrTo.size(); i++) {
        for (char c : vstrTo[i]) {
            if (isalnum((unsigned char)c) || strchr("-._~=,", c) != NULL) {
                strLink += c;
            } else {
                char acHex[4];
                snprintf(acHex, sizeof(acHex), "%%%02X", (unsigned char)c);
                strLink += acHex;
            }
        }
        strLink += i + 1 < vstrTo.size() ? "/" : "";
    }
    return strLink;
}

std::string DataUri(const std::string &strMime, const std::vector<uint8_t> &vucBytes)
{
    static const char s_acAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string strUri = "data:" + strMime + ";base64,";
    for (size_t i = 0; i < vucBytes.size(); i += 3) {
        const uint32_t uGroup = (uint32_t)vucBytes[i] << 16 | (i + 1 < vucBytes.size() ? vucBytes[i + 1] << 8 : 0) |
                                (i + 2 < vucBytes.size() ? vucBytes[i + 2] : 0);
        strUri += s_acAlphabet[uGroup >> 18 & 63];
        strUri += s_acAlphabet[uGroup >> 12 & 63];
        strUri += i + 1 < vucBytes.size() ? s_acAlphabet[uGroup >> 6 & 63] : '=';
        strUri += i + 2 < vucBytes.size() ? s_acAlphabet[uGroup & 63] : '=';
    }
    return strUri;
}

double Median(std::vector<double> vdValues)
{
    if (vdValues.empty()) {
        return 0.0;
    }
    std::sort(vdValues.begin(), vdValues.end());
    const size_t uMid = vdValues.size() / 2;
    return vdValues.size() % 2 ? vdValues[uMid] : 0.5 * (vdValues[uMid - 1] + vdValues[uMid]);
}

std::string ProgressText(int32_t iDone, int32_t iTotal, double dSeconds)
{
    char acText[128];
    const double dRate = dSeconds > 0.0 ? iDone / dSeconds : 0.0;
    if (iDone <= 0 || dRate <= 0.0) {
        snprintf(acText, sizeof(acText), "%d/%d", iDone, iTotal);
    } else {
        const int32_t iLeft = (int32_t)((iTotal - iDone) / dRate + 0.5);
        snprintf(acText, sizeof(acText), "%d/%d, %.1f frames/s, %d:%02d left", iDone, iTotal, dRate, iLeft / 60,
                 iLeft % 60);
    }
    return acText;
}

std::string ProgressBar(int32_t iDone, int32_t iTotal, double dSeconds, const std::string &strName,
                        int32_t iColumns)
{
    const int32_t iBar = std::max(10, std::min(40, iColumns / 3));
    const int32_t iFull = iTotal > 0 ? (int32_t)((int64_t)iBar * iDone / iTotal) : iBar;
    std::string strLine = "[" + std::string((size_t)iFull, '#') + std::string((size_t)(iBar - iFull), '.') + "] " +
                          ProgressText(iDone, iTotal, dSeconds);
    const int32_t iRoom = iColumns - 1 - (int32_t)strLine.size() - 2;
    if (iRoom >= 8 && !strName.empty()) {
        strLine += "  " + (strName.size() <= (size_t)iRoom ? strName : "..." + strName.substr(strName.size() - iRoom + 3));
    }
    return strLine.substr(0, (size_t)std::max(0, iColumns - 1));
}
